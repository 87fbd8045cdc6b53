#pragma once

namespace velt_test {

// How many values a test left behind in frames whose destructors are not run.
extern long skipped_values;

}  // namespace velt_test
