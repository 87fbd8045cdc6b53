// The frames between a fault and its handler that would not let the exception through.
#pragma once

#include <windows.h>

namespace velt::detail {

// Walks from the fault, where the walker begins, outwards to the frame with the try
// block, which is the establisher's. Moves the place of the throw past all frames whose
// routine is the run time's own and would stop the exception. Returns false if there are
// none.
bool pass_stopping_frames(EXCEPTION_RECORD const& record, CONTEXT& place, CONTEXT& walker,
                          void* establisher) noexcept;

}  // namespace velt::detail
