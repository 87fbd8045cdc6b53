// What the diagnostics share of the symbol engine.
#pragma once

#include <string>

#include "velt/symbols/Symbols.h"

struct _CONTEXT;
struct _tagSTACKFRAME64;
class TMutex;

namespace velt::detail {

// Guards the engine. Recursive. Whoever writes a dump or a snapshot holds it
// throughout. Taken before the loader lock, the PEB lock and the heap lock.
TMutex& symbol_lock();

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

// The name in "module!name+1f[File.cpp#12]", never shortened.
std::string SymGetQualifiedNameFromAddress(unsigned __int64 address);

// One step of a walk in the 32-bit form, whose context may be null. False also
// without the engine, and if its lock is not to be had within 20 seconds. Does
// not throw.
bool StackWalkStep(_tagSTACKFRAME64* frame, _CONTEXT* context, void* thread);

// The engine's dump writer; null if the engine is not loaded. Whoever calls it
// holds symbol_lock().
void* dump_writer();

// When the library is unloaded although the engine is still held.
void forget_known_ranges();

}  // namespace velt::detail
