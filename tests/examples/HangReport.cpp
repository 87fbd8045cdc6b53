// The example hang_report, run as a user runs it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "tests/examples/Transcript.h"

namespace {

using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::MatchesRegex;
using ::testing::StartsWith;
using velt_test::lines_of;

velt_test::finished_process run(std::vector<std::wstring> const& arguments) {
  return velt_test::run_program(L"hang_report.exe", arguments, velt_test::source_folder);
}

std::string place(std::string const& function, std::string const& code) {
  return "-> " + velt_test::frame("hang_report", function, "Work.cpp", code);
}

std::string const selling = place("sell", "book(all.sales, stock, TLock(all.accounts));");
std::string const taking_back =
    place("take_back", "book(all.returns, TLock(all.stock), accounts);");

// The stack of the thread that is at that place.
std::string stack_with(std::string const& report, std::string const& place_of_thread) {
  auto const at = report.find(place_of_thread);
  if (at == report.npos) return "no thread at " + place_of_thread;
  auto const begin = report.rfind("Thread ", at);
  return report.substr(begin, report.find("\n\n", at) - begin);
}

// Of a line what is the same in each run of each build, or nothing for frames of
// other modules and of functions that may become parts of others.
std::string form_of(std::string const& line) {
  if (line.starts_with("Snapshot taked on ")) return "Snapshot taked on";
  auto const form = velt_test::without_offsets(line);
  for (auto const& known : {selling, taking_back})
    if (form == known) return form;
  for (std::string const known : {"Thread ", "sell ", "take_back ", "forecast "})
    if (form.starts_with(known)) return known;
  return form.starts_with("-> ") ? "" : form;
}

std::vector<std::string> forms_of(std::vector<std::string> const& lines) {
  std::vector<std::string> forms;
  std::transform(lines.begin(), lines.end(), std::back_inserter(forms), form_of);
  return forms;
}

std::vector<std::string> documented() {
  std::string const indent = "    ";
  auto const page = velt_test::content_of(velt_test::source_folder / "docs/examples.md");
  auto const begin = page.find(indent + "Nothing was sold");
  std::vector<std::string> lines;
  if (begin == page.npos) return lines;
  for (auto const& line : lines_of(page.substr(begin))) {
    if (!line.empty() && !line.starts_with(indent)) break;
    if (!line.empty()) lines.push_back(line.substr(indent.size()));
  }
  return lines;
}

TEST(HangReport, StacksShowTheLocksThatAreWaitedFor) {
  auto const result = run({});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  auto const report = velt_test::without_offsets(result.output);
  EXPECT_THAT(report, StartsWith("Nothing was sold or taken back for a second.\n"
                                 "Snapshot taked on "));
  for (auto const& where : {selling, taking_back})
    EXPECT_THAT(stack_with(report, where),
                AllOf(HasSubstr("ThreadBody["), HasSubstr("\n-> velt!TMutex::Lock")));
  EXPECT_THAT(report, AnyOf(HasSubstr("\n-> hang_report!forecast"), HasSubstr("Pause")));

  auto const lines = lines_of(result.output);
  ASSERT_GT(lines.size(), 4u);
  EXPECT_THAT(std::vector(lines.end() - 4, lines.end()),
              testing::ElementsAre(MatchesRegex("sell +done 0 times, then interrupted"),
                                   MatchesRegex("take_back +done \\d+ times, then interrupted"),
                                   MatchesRegex("forecast +done \\d+ times, then interrupted"),
                                   "Both locks are free."));
  EXPECT_GT(documented().size(), 20u);
  EXPECT_THAT(forms_of(lines), IsSupersetOf(forms_of(documented())));
}

// Lines of the page that begin with the number of a line of Work.cpp.
TEST(HangReport, DocumentationShowsTheLinesOfTheMistake) {
  auto const work =
      lines_of(velt_test::content_of(velt_test::source_folder / "examples/hang_report/Work.cpp"));
  auto const page = velt_test::content_of(velt_test::source_folder / "docs/examples.md");
  std::regex const numbered("(\\d+) ( .*;)");
  int shown = 0;
  for (auto const& line : lines_of(page.substr(page.find("## hang_report")))) {
    std::smatch match;
    if (!std::regex_match(line, match, numbered)) continue;
    EXPECT_EQ(match[2], work.at(std::stoul(match[1]) - 1));
    ++shown;
  }
  EXPECT_EQ(shown, 4);
}

TEST(HangReport, WrongUseIsOneLine) {
  auto const result = run({L"now"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "hang_report: unexpected argument 'now'; usage: hang_report [--help]\n");
}

}  // namespace
