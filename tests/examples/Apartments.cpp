// The example apartment_guard, run as a user runs it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/examples/Transcript.h"

namespace {

velt_test::finished_process run(std::vector<std::wstring> const& arguments) {
  return velt_test::run_program(L"apartment_guard.exe", arguments, velt_test::source_folder);
}

}  // namespace

TEST(ApartmentGuard, EntersTheKindAskedForAndLeavesIt) {
  auto const expect = [](wchar_t const* kind, std::string const& inside) {
    auto const result = run({kind});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_THAT(result.output, testing::MatchesRegex("before:         in no apartment\n"
                                                     "inside:         in " + inside + "\n"
                                                     "the other kind: .+\n"
                                                     "afterwards:     in no apartment\n"));
  };
  expect(L"sta", "one of its own");
  expect(L"mta", "the apartment of many");
}

TEST(ApartmentGuard, WrongUseIsOneLine) {
  auto const result = run({L"both"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "apartment_guard: not a kind of apartment: 'both'; "
                           "usage: apartment_guard sta | mta\n");
}
