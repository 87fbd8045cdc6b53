// Code that faults, written as a program would write it, and built several times:
// at each level of optimisation as a part of the test program, and as a DLL.
#pragma once

#include <climits>
#include <span>
#include <string>
#include <vector>

namespace velt_test {

// What the compiler cannot know.
struct Fault {
  int* nowhere;  // points to 0x10
  int lowest = INT_MIN, minus_one = -1;
  double too_large = 1e300;  // the processor traps its conversion to int
  std::string log;
  long long result = 0;
};

// Faults in a try block of its own. The log ends with "own" if that one took it.
struct Place {
  char const* row;  // of the documentation's table
  void (*fault)(Fault&);
};

struct Scenario {
  char const* name;
  void (*run)(Fault&);
  char const* log;  // "next": the exception left the scenario
};

// Calls itself until the stack is used up, if it is called with 1.
struct Recursion {
  char const* name;
  long (*run)(long depth);
  int overflows = 10;  // more where the place of the overflow matters
};

// Ends its process.
struct End {
  void (*run)(Fault&);
  unsigned status;
  char const* said;
};

struct Build {
  char const* name;
  std::span<Place const> places;
  std::span<Scenario const> scenarios;
  std::span<Recursion const> recursions;
  std::span<End const> ends;
};

Build build_at_o0();
Build build_at_o1();
Build build_at_o2();
Build build_at_o3();
Build build_of_dll();

inline std::vector<Build> all_builds() {
  return {build_at_o0(), build_at_o1(), build_at_o2(), build_at_o3(), build_of_dll()};
}

}  // namespace velt_test
