#include <algorithm>

#include "Support.h"
#include "tests/support/ChildProcess.h"

using namespace velt_test;

namespace {

// Whole lines up to the moment of the end, where the last may be cut.
void expect_whole_lines(std::string const& text) {
  auto lines = lines_of(text);
  ASSERT_FALSE(lines.empty());
  lines.pop_back();
  for (auto const& line : lines)
    EXPECT_TRUE((line.starts_with("line ") && line.ends_with(" of " + std::string(20, 'x'))) ||
                line == "constructed 1" || line == "destroyed 2")
        << line;
}

}  // namespace

TEST(ProcessEnd, ThreadsThatStillWriteDoNotDisturbItAndStaticObjectsMayWrite) {
  for (int round = 0; round < 10; ++round) {
    scratch_folder const scratch;
    bool const returns = round % 2;
    std::vector<std::wstring> const at_once(!returns, L"now");
    EXPECT_EQ(run_program(L"debug_child.exe", at_once, scratch.path()).status, 7u) << returns;
    auto const error = content_of(scratch.path() / "error");
    auto const debug = content_of(scratch.path() / "debug");
    EXPECT_EQ(error, returns ? "constructed 1\r\ndestroyed 2\r\n" : "constructed 1\r\n");
    EXPECT_TRUE(debug.starts_with("constructed 1\r\n")) << debug;
    EXPECT_EQ(debug.find("\r\ndestroyed 2\r\n") != debug.npos, returns);
    expect_whole_lines(debug);
    expect_whole_lines(content_of(scratch.path() / "own"));
  }
}
