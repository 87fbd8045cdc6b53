// Functions that call themselves until the stack is used up, in code that is
// built several times, as FaultScenarios.h.
#pragma once

#include <span>

namespace velt_test {

struct Recursion {
  char const* name;
  // Does not return. `objects`: how many there are in its frames.
  void (*run)(long& objects);
};

std::span<Recursion const> recursions_at_o0();
std::span<Recursion const> recursions_at_o1();
std::span<Recursion const> recursions_at_o2();

}  // namespace velt_test
