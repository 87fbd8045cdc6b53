#pragma once

namespace velt_test {

// How many values a test left behind in frames whose destructors are not run.
inline long skipped_values = 0;

}  // namespace velt_test
