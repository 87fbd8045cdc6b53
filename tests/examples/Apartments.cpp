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
  struct {
    wchar_t const* kind;
    char const* inside;
  } const kinds[] = {{L"sta", "one of its own"}, {L"mta", "the apartment of many"}};
  for (auto const& [kind, inside] : kinds) {
    auto const result = run({kind});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    auto const lines = velt_test::lines_of(result.output);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "before:         in no apartment");
    EXPECT_EQ(lines[1], std::string("inside:         in ") + inside);
    EXPECT_GT(lines[2].size(), std::string("the other kind: ").size());
    EXPECT_EQ(lines[3], "afterwards:     in no apartment");
  }
}

TEST(ApartmentGuard, WrongUseIsOneLine) {
  auto const result = run({L"both"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "apartment_guard: not a kind of apartment: 'both'; "
                           "usage: apartment_guard sta | mta\n");
}
