// What the diagnostics share of the symbol engine.
#pragma once

#include <string>

struct _CONTEXT;
struct _tagSTACKFRAME64;
class TMutex;

namespace velt::detail {

// Guards the engine. Recursive. Whoever writes a dump or a snapshot holds it
// throughout. Taken before the loader lock, the PEB lock and the heap lock.
TMutex& symbol_lock();

std::string SymGetQualifiedNameFromAddress(unsigned __int64 address);

// One step of a walk in the 32-bit form.
bool StackWalkStep(_tagSTACKFRAME64* frame, _CONTEXT* context, void* thread);

// The engine's dump writer; null if the engine is not loaded.
void* dump_writer();

}  // namespace velt::detail
