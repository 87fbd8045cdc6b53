// The parts of the symbol engine that other folders of the library use: its lock, holds
// for a scope, and short stacks.
#pragma once

#include <array>
#include <string>

#include "velt/symbols/Symbols.h"

struct _CONTEXT;
struct _tagSTACKFRAME64;
class TMutex;

namespace velt::detail {

// While it lives, its thread collects the diagnostics of an exception in flight. Throws
// are not watched meanwhile. Waits for symbol_lock() are not alertable: an exception of a
// queued call would be lost, so the call stays queued for the thread's next wait.
class [[nodiscard]] collecting_scope {
public:
  collecting_scope() noexcept;
  collecting_scope(collecting_scope const&) = delete;
  collecting_scope& operator=(collecting_scope const&) = delete;
  ~collecting_scope();

  // Whether the calling thread has one.
  static bool exists() noexcept;

private:
  collecting_scope* const outer;
};

// Guards the engine. Recursive. Taken before the loader lock, the lock of the process
// environment and the heaps. Its holder tries for the loader lock without waiting. Waits
// for it are alertable, except in a collecting_scope.
TMutex& symbol_lock();

// Waits for symbol_lock(). A caller that owns the loader lock waits a second at most, as
// the platform's engine may wait for the loader lock; false after that second.
bool lock_symbols();

// lock_symbols() for a scope. Asks the platform for nothing in an engine_isolation, whose
// thread has the lock.
class [[nodiscard]] symbol_hold {
public:
  symbol_hold();
  symbol_hold(symbol_hold const&) = delete;
  symbol_hold& operator=(symbol_hold const&) = delete;
  ~symbol_hold();

  explicit operator bool() const noexcept { return held; }

private:
  bool const is_nested;
  bool const held;
};

// The heaps of the C run times that the engine or this library may use; null for a run
// time that is not loaded or uses the process heap, and without the engine. For holders
// of symbol_lock().
std::array<void*, 2> heaps_of_run_times() noexcept;

// SymInitialize() for a scope. If the release fails, the engine stays loaded.
class [[nodiscard]] engine_hold {
public:
  engine_hold() : held(SymInitialize()) {}
  engine_hold(engine_hold const&) = delete;
  engine_hold& operator=(engine_hold const&) = delete;
  ~engine_hold() {
    try {
      if (held) SymCleanup();
    } catch (...) {
    }
  }

  explicit operator bool() const noexcept { return held; }

private:
  bool held;
};

// Up to 64 return addresses of a stack, innermost first.
class short_stack {
public:
  // As StackWalk(): with a null context, `skip` counts from the frame of the function that
  // constructs the object.
  [[gnu::always_inline]] explicit short_stack(_CONTEXT* context, void* thread,
                                              unsigned int skip = 0)
      : count(StackWalk(frames, context, thread, skip, most)) {}

  bool empty() const noexcept { return count == 0; }
  std::string text() const { return SymGetStackTrace(frames, count); }
  unsigned __int64 address_to_blame() const { return SymGetActualErrorAddress(frames, count); }

private:
  static constexpr unsigned int most = 64;
  unsigned __int64 frames[most] = {};
  unsigned int count;
};

// The part "module!name+1f" of "module!name+1f[File.cpp#12]", never shortened.
std::string SymGetQualifiedNameFromAddress(unsigned __int64 address);

// One step of a walk in the 32-bit form; the context may be null. False also without the
// engine, and if its lock is unavailable for 20 seconds. Does not throw.
bool StackWalkStep(_tagSTACKFRAME64* frame, _CONTEXT* context, void* thread);

// The engine's dump writer; null if the engine is not loaded. Call the writer with
// symbol_lock() held.
void* dump_writer();

// For the unloading of the library while the engine is still held.
void abandon_engine();

}  // namespace velt::detail
