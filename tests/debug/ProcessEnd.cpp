#include "ChildProcess.h"
#include "Support.h"

namespace {

// Whole lines up to the moment of the end, where the last may be cut.
void expect_whole_lines(std::string const& text) {
  auto const lines = lines_of(text);
  ASSERT_FALSE(lines.empty());
  std::string const tail = " of " + std::string(20, 'x');
  for (std::size_t index = 0; index + 1 < lines.size(); ++index) {
    EXPECT_TRUE(lines[index].starts_with("line ")) << lines[index];
    EXPECT_TRUE(lines[index].ends_with(tail)) << lines[index];
  }
}

}  // namespace

TEST(ProcessEnd, ThreadsThatStillWriteDoNotDisturbIt) {
  for (char const* way : {"return", "exit_process"})
    for (int round = 0; round < 5; ++round) {
      TemporaryFile file;
      EXPECT_EQ(run_child({way, file.name()}), 7u) << way;
      expect_whole_lines(file.bytes());
      DeleteFileA((file.name() + std::string("2")).c_str());
    }
}

TEST(ProcessEnd, StaticConstructorsAndDestructorsMayWriteToTheReadyStreams) {
  TemporaryFile file;
  SetEnvironmentVariableA("VELT_STATIC_LOG", file.name());
  EXPECT_EQ(run_child({"static", file.name()}), 0u);
  SetEnvironmentVariableA("VELT_STATIC_LOG", nullptr);
  std::vector<std::string> const expected = {"constructed 1", "constructed 1", "constructed 1",
                                             "destroyed 2",   "destroyed 2",   "destroyed 2"};
  EXPECT_EQ(lines_of(file.bytes()), expected);
}
