// Keeps the symbol engine from waiting for threads that are stopped so that their
// stacks can be walked. Besides the locks of ProcessLocksInternal.h these threads
// may hold whatever it takes to open files.
#pragma once

namespace velt::detail {

// Makes the engine read what it knows of each module of the process, which it
// puts off until it is asked. Takes long at first. Before the heap is locked.
void load_all_symbols();

// While it lives the engine neither looks for modules that it does not know nor
// remembers that they were asked for. For holders of symbol_lock().
class [[nodiscard]] engine_isolation {
public:
  engine_isolation() noexcept;
  engine_isolation(engine_isolation const&) = delete;
  engine_isolation& operator=(engine_isolation const&) = delete;
  ~engine_isolation();
};

}  // namespace velt::detail
