// What the diagnostics share of the symbol engine.
#pragma once

#include <array>
#include <string>

#include "velt/symbols/Symbols.h"

struct _CONTEXT;
struct _tagSTACKFRAME64;
class TMutex;

namespace velt::detail {

// While it lives, its thread collects the diagnostics of an exception that is under
// way. Throws in there are not watched, and waits for symbol_lock() are not
// alertable: what a queued call throws would be lost in there, so the call is left
// to the thread's next wait.
class [[nodiscard]] collecting_scope {
public:
  collecting_scope() noexcept;
  collecting_scope(collecting_scope const&) = delete;
  collecting_scope& operator=(collecting_scope const&) = delete;
  ~collecting_scope();

  // Does the calling thread have one?
  static bool exists() noexcept;

private:
  collecting_scope* const outer;
};

// Guards the engine. Recursive. Taken before the loader lock, the lock of the
// process environment and the heaps. Whoever holds it only tries for the loader
// lock. Waits for it are alertable, but not in a collecting_scope.
TMutex& symbol_lock();

// Waits for symbol_lock(). A caller that owns the loader lock waits for a second at
// most, since the platform's engine may wait for that lock; false then.
bool lock_symbols();

// lock_symbols() for a scope.
class [[nodiscard]] symbol_hold {
public:
  symbol_hold() : held(lock_symbols()) {}
  symbol_hold(symbol_hold const&) = delete;
  symbol_hold& operator=(symbol_hold const&) = delete;
  ~symbol_hold();

  explicit operator bool() const noexcept { return held; }

private:
  bool held;
};

// The heaps of the run times that the engine or this library may use, while the
// engine is loaded; null for one that is not there or that is the process heap.
// For holders of symbol_lock().
std::array<void*, 2> heaps_of_run_times() noexcept;

// SymInitialize() for a scope. A release that fails leaves the engine loaded.
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
  // As StackWalk(): with a null context `skip` counts from the maker's frame on.
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

// The name in "module!name+1f[File.cpp#12]", never shortened.
std::string SymGetQualifiedNameFromAddress(unsigned __int64 address);

// One step of a walk in the 32-bit form, whose context may be null. False also
// without the engine, and if its lock is unavailable for 20 seconds. Does
// not throw.
bool StackWalkStep(_tagSTACKFRAME64* frame, _CONTEXT* context, void* thread);

// The engine's dump writer; null if the engine is not loaded. Whoever calls it
// holds symbol_lock().
void* dump_writer();

// When the library is unloaded although the engine is still held.
void forget_known_ranges();

}  // namespace velt::detail
