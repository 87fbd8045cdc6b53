// Counts of holders in the process, for tests that look for leaked values and for
// memory that is kept without bound.
#pragma once

#include <cstdint>  // __int64

#include "velt/base/Export.h"

namespace velt::detail {

// Holders of values that are alive; exact only while no other thread makes or
// frees values.
VELT_API __int64 live_holders() noexcept;

// Free blocks that threads and the store between them keep for later; under the
// same condition.
VELT_API __int64 kept_holder_blocks() noexcept;

}  // namespace velt::detail
