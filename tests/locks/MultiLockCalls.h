// What the lock's sources call, in the program that is built with them.
#pragma once

#include <atomic>

namespace velt_test {

// Calls of SetEvent on any thread.
extern std::atomic<int> events_set;

}  // namespace velt_test
