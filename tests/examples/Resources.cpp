// The small examples of the system's resources, run as a user runs them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <map>
#include <string>
#include <vector>

#include "tests/examples/Transcript.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/Event.h"

namespace {

using velt_test::finished_process;
using Arguments = std::vector<std::wstring>;

finished_process run(std::wstring const& program, Arguments const& arguments) {
  return velt_test::run_program(program + L".exe", arguments, velt_test::source_folder);
}

void expect_output(finished_process const& found, unsigned long status,
                   std::string const& output) {
  EXPECT_EQ(found.status, status);
  EXPECT_EQ(found.output, output);
  EXPECT_EQ(found.errors, "");
}

void expect_complaint(finished_process const& found, unsigned long status,
                      std::string const& line) {
  EXPECT_EQ(found.status, status);
  EXPECT_EQ(found.errors, line + "\n");
}

}  // namespace

TEST(SharedMapping, TextComesBackFromTheOtherProcess) {
  expect_output(run(L"shared_mapping", {L"grün und blau"}), 0, "GRÜN UND BLAU\n");
  expect_complaint(run(L"shared_mapping", {}), 2, "usage: shared_mapping TEXT");
}

TEST(MailslotLog, HasAllLinesOfAllProcesses) {
  auto const result = run(L"mailslot_log", {L"3"});
  EXPECT_EQ(result.status, 0);
  std::map<std::string, int> steps;
  for (auto const& line : velt_test::lines_of(result.output)) {
    auto const process = line.substr(0, line.find(" is at step "));
    EXPECT_EQ(line, process + " is at step " + std::to_string(++steps[process]));
  }
  EXPECT_THAT(steps, testing::SizeIs(3));
  EXPECT_THAT(steps, testing::Each(testing::Field(&decltype(steps)::value_type::second, 3)));
  for (auto const& wrong : {Arguments{}, {L"0"}, {L"10"}, {L"2x"}})
    expect_complaint(run(L"mailslot_log", wrong), 2,
                     "usage: mailslot_log PROCESSES, a number from 1 to 9");
}

TEST(ChildProcess, TellsHowItEnded) {
  expect_output(run(L"child_process", {L"20000", L"os_helper.exe", L"end", L"0"}), 0,
                "ended with 0\n");
  expect_output(run(L"child_process", {L"20000", L"os_helper.exe", L"end", L"7"}), 1,
                "ended with 7\n");
  auto const event = "velt-example-" + std::to_string(GetCurrentProcessId());
  TEvent const started(event.c_str(), true, false);
  expect_output(run(L"child_process", {L"300", L"os_helper.exe", L"stay",
                                       std::wstring(event.begin(), event.end())}),
                1, "killed after 300 ms\n");
  expect_complaint(run(L"child_process", {L"1", L"velt-no-such-program"}), 2,
                   "child_process: " + ESystemException(2)["Text"].as_string());
  expect_complaint(run(L"child_process", {L"soon", L"cmd"}), 2,
                   "usage: child_process MILLISECONDS PROGRAM [ARGUMENT]...");
}

TEST(ComStream, ElementsOfADocument) {
  std::string const menu = "menu\n  soup\n  main\n    fish\n    rice\n";
  expect_output(run(L"com_stream", {}), 0, menu);
  velt_test::scratch_folder const folder;
  auto const file = folder.path() / "document.xml";
  folder.add("document.xml", "<a><b>text</b></a>");
  expect_output(run(L"com_stream", {file.native()}), 0, "a\n  b\n");
  folder.add("document.xml", "<a><b></a>");
  expect_complaint(run(L"com_stream", {file.native()}), 1, "com_stream: malformed document");
  expect_complaint(run(L"com_stream", {L"velt-no-such.xml"}), 2,
                   "com_stream: cannot open 'velt-no-such.xml'");
  expect_complaint(run(L"com_stream", {L"a", L"b"}), 2, "usage: com_stream [FILE]");
}
