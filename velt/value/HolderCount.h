// The count of holders in the process, for tests that look for leaked values.
#pragma once

#include "velt/Export.h"

namespace velt::detail {

// Holders of values that are alive; exact only while no other thread makes or
// frees values.
VELT_API __int64 live_holders() noexcept;

}  // namespace velt::detail
