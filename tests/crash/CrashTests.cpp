// How processes end that fail: each way is run in a process of its own.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/ChildProcess.h"

namespace {

struct Way {
  char const* name;
  unsigned long status;
  char const* output;
};

class Crash : public ::testing::TestWithParam<wchar_t const*> {
protected:
  void expect_end(Way const& way) const {
    velt_test::scratch_folder const folder;
    std::string const name = way.name;
    auto const process =
        velt_test::run_program(GetParam(), {std::wstring(name.begin(), name.end())}, folder.path());
    EXPECT_EQ(process.status, way.status) << way.name;
    EXPECT_EQ(process.output, way.output) << way.name;
    EXPECT_TRUE(std::filesystem::is_empty(folder.path())) << way.name;
  }
};

}  // namespace

TEST_P(Crash, ByAFaultThatNobodyTranslatesHasItsCode) {
  for (Way const& way : {Way{"fault_without_translator", 0xC0000005, "unhandled c0000005"},
                         Way{"fault_without_try", 0xC0000005, "unhandled c0000005"},
                         Way{"break_without_try", 0x80000003, "unhandled 80000003"}})
    expect_end(way);
}

TEST_P(Crash, ByAFaultThatMustNotPassIsATermination) {
  constexpr char output[] = "terminated by Access Violation (read from 0x10)";
  for (char const* way : {"fault_under_other_handlers", "fault_below_noexcept", "fault_in_noexcept",
                          "fault_in_destructor", "fault_in_unwinding", "fault_without_the_option"})
    expect_end({way, 3, output});
}

// Wine tells nobody.
TEST_P(Crash, ByASecondOverflowWithoutAResetIsSilent) {
  expect_end({"overflow_twice_without_reset", 0, "caught. "});
}

TEST_P(Crash, ByAnOverflowOnTheMainThreadIsPreventedByAGuarantee) {
  expect_end({"overflow_on_main_thread_with_guarantee", 0, "caught. caught. went on"});
}

INSTANTIATE_TEST_SUITE_P(, Crash, ::testing::Values(L"crash_O0.exe", L"crash_O2.exe"),
                         [](auto const& test) {
                           return std::string(test.index == 0 ? "Unoptimised" : "Optimised");
                         });

TEST(Unloading, LeavesNothingBehindThatAThrowWouldMeet) {
  velt_test::scratch_folder const folder;
  auto const process = velt_test::run_program(L"unload.exe", {}, folder.path());
  EXPECT_EQ(process.status, 0u);
  EXPECT_EQ(process.output, "loaded unloaded loaded unloaded loaded unloaded ");
}
