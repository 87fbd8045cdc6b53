// Each thread's translator of faults. Delivery of faults is compiler-specific: one
// source file per supported compiler.
#pragma once

#include "velt/faults/StructuredException.h"

namespace velt::detail {

// Sets the calling thread's translator, which may be null; returns the one
// before. The translator is called on the faulting stack, before any unwinding. It
// throws or returns; after a return the search for a handler goes on. For a stack
// overflow it must throw.
VELT_API structured_exception_translator set_translator(
    structured_exception_translator translator) noexcept;

// Calls the thrower, which must throw. The throw takes 8 to 9 KB of stack under
// Wine, where a bare throw takes 12.
[[noreturn]] void throw_leanly(void (*thrower)(void* argument), void* argument);

// Rethrows the current exception in the same way, for handlers of overflows.
[[noreturn]] void throw_on_leanly();

// True if the vectored handler that watches throws is registered.
bool throws_are_watched() noexcept;

}  // namespace velt::detail
