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

// True if the vectored handler that watches throws is registered.
bool throws_are_watched() noexcept;

}  // namespace velt::detail
