// Faults and what becomes of them, in code that is built several times: at each
// level of optimisation as a part of the test program, and as a DLL.
#pragma once

#include <span>
#include <string>

namespace velt_test {

// Runs on a thread whose faults are translated and leaves no exception.
struct FaultScenario {
  char const* name;
  void (*run)(std::string& log);
  char const* expected;
};

std::span<FaultScenario const> scenarios_at_o0();
std::span<FaultScenario const> scenarios_at_o1();
std::span<FaultScenario const> scenarios_at_o2();
std::span<FaultScenario const> scenarios_of_dll();

}  // namespace velt_test
