// What jobs do that go wrong.
#pragma once

namespace velt_test {

inline int volatile* volatile nowhere = nullptr;

inline void read_through_bad_pointer() { static_cast<void>(*nowhere); }

// Does not return.
[[gnu::noipa]] inline int overflow_stack() {
  char volatile room[300];
  room[0] = nowhere == nullptr;
  return room[0] ? overflow_stack() + room[0] : 0;
}

}  // namespace velt_test
