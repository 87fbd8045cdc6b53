// The example fault_report, run as a user runs it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "tests/examples/Transcript.h"
#include "velt/exceptions/ExceptionFamily.h"

namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::StartsWith;
using velt_test::content_of;
using velt_test::finished_process;
using velt_test::lines_of;
using velt_test::source_folder;
using velt_test::without_offsets;

// What a report has under a name, to the end of the line.
std::string value(std::string const& report, std::string const& name) {
  auto const begin = report.find('\n' + name + ": ");
  if (begin == report.npos) return {};
  auto const text = begin + name.size() + 3;
  return report.substr(text, report.find('\n', text) - text);
}

class FaultReport : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    scratch = new velt_test::scratch_folder;
    result = new finished_process(run({L"größe"}));
  }
  static void TearDownTestSuite() {
    delete result;
    delete scratch;
  }

  static finished_process run(std::vector<std::wstring> const& arguments) {
    return velt_test::run_program(L"fault_report.exe", arguments, scratch->path());
  }

  // From the heading to the next empty line.
  static std::string report_on(std::string const& failure) {
    auto const begin = result->output.find('\n' + failure + " ─");
    if (begin == std::string::npos) return "no report on " + failure;
    return without_offsets(
        result->output.substr(begin, result->output.find("\n\n", begin) - begin));
  }

  static std::filesystem::path dumps() { return scratch->path() / L"größe" / "Dumps"; }
  static bool is_kept(std::string const& dump) { return exists(dumps().parent_path() / dump); }

  static inline velt_test::scratch_folder* scratch;
  static inline finished_process* result;
};

TEST_F(FaultReport, EachFailureIsToldWithPlaceStackAndDump) {
  struct {
    char const *failure, *type, *text, *function, *code, *dump;
    bool is_kept;
  } const failures[] = {
      {"a bad pointer", "EStructuredException", "Text: Access Violation (read from 0x20)\n",
       "stock_of", "return found->stock;", "C0000005", true},
      {"a division by zero", "EStructuredException", "Text: Divide by Zero\n", "pages",
       "return lines / ", "C0000094", true},
      {"a file that is not there", "ESystemException", "Code: 2 (0x2)\n", "size_of",
       "return TFile(", "ESystemException", false},
      {"a value of another type", "EBadCastException", "Text: Bad cast\nFrom: double\nTo: int\n",
       "second_port", "static_cast<int>(setting)", "EBadCastException", true},
  };
  for (auto const& each : failures) {
    auto const report = report_on(each.failure);
    auto const place = velt_test::frame("fault_report", each.function, "Service.cpp", each.code);
    EXPECT_THAT(report, HasSubstr(std::string("─ ") + each.type + '\n' + each.text));
    EXPECT_EQ(value(report, "ModuleName"), "fault_report");
    EXPECT_EQ(value(report, "AddressName"), place);
    EXPECT_THAT(report, HasSubstr("Stack: \n-> ntdll!"));
    EXPECT_THAT(report, HasSubstr("\n-> fault_report!attempt["));
    EXPECT_THAT(report, HasSubstr("\n-> " + place));
    auto const dump = value(report, "MiniDump");
    EXPECT_THAT(dump, StartsWith(std::string("Dumps\\fault_report_") + each.dump + "_20"));
    EXPECT_EQ(is_kept(dump), each.is_kept) << dump;
  }
}

TEST_F(FaultReport, ExceptionsOfTheStandardLibraryHaveADumpAndTheStackOfTheHandler) {
  auto const report = report_on("an exception of the standard library");
  EXPECT_THAT(report, HasSubstr("─ std::out_of_range\nbasic_string::substr: "));
  EXPECT_EQ(value(report, "ModuleName"), "");
  EXPECT_THAT(report, EndsWith("\n-> " + velt_test::frame("fault_report", "attempt", "Handling.cpp",
                                                          "GetMyDebugStack()")));
  auto const dump = value(report, "MiniDump");
  EXPECT_THAT(dump, StartsWith("Dumps\\fault_report_out_of_range_20"));
  EXPECT_TRUE(is_kept(dump)) << dump;
}

TEST_F(FaultReport, NothingElseIsLeft) {
  EXPECT_EQ(result->status, 0);
  EXPECT_EQ(result->errors, "");
  EXPECT_THAT(result->output, EndsWith("\n4 dumps are in größe/Dumps.\n"));
  int found = 0;
  for (auto const& file : std::filesystem::directory_iterator(dumps())) {
    EXPECT_THAT(content_of(file.path()), StartsWith("MDMP")) << file.path();
    ++found;
  }
  EXPECT_EQ(found, 4);
  std::filesystem::directory_iterator const all(scratch->path());
  EXPECT_EQ(std::distance(begin(all), end(all)), 1);
}

// A line as it is in each run of each build, or nothing for the frames around the
// example's own functions.
std::string form_of(std::string const& line) {
  if (line.starts_with("-> ") && line.find("[Service.cpp#") == line.npos &&
      line.find("[Handling.cpp#") == line.npos)
    return {};
  for (std::string const name : {"Address:", "Stack:"})
    if (line.starts_with(name)) return name;
  return without_offsets(std::regex_replace(line, std::regex("_20[0-9_]+\\.dmp"), ".dmp"));
}

// The lines of the page that are indented, from the heading of a failure on.
std::vector<std::string> documented(std::string const& failure) {
  std::string const indent = "    ";
  auto const content = content_of(source_folder / "docs/examples.md");
  auto const begin = content.find('\n' + indent + failure + " ─");
  std::vector<std::string> forms;
  if (begin == content.npos) return forms;
  for (auto const& line : lines_of(content.substr(begin + 1))) {
    if (!line.starts_with(indent)) break;
    forms.push_back(form_of(line.substr(indent.size())));
  }
  return forms;
}

TEST_F(FaultReport, DocumentationShowsRealReports) {
  std::vector<std::string> printed;
  for (auto const& line : lines_of(result->output)) printed.push_back(form_of(line));
  for (auto const failure : {"a file that is not there", "an exception of the standard library"}) {
    auto const forms = documented(failure);
    EXPECT_GT(forms.size(), 5u) << failure;
    EXPECT_THAT(printed, IsSupersetOf(forms)) << failure;
  }
}

TEST_F(FaultReport, WrongUseIsOneLineAndWritesNothing) {
  velt_test::scratch_folder const folder;
  folder.add("file", "");
  std::string const usage = "; usage: fault_report [--help] [FOLDER]\n";
  struct {
    std::vector<std::wstring> arguments;
    std::string reason;
  } const commands[] = {
      {{L"a", L"b"}, "more than one folder" + usage},
      {{L"--quiet"}, "unknown option '--quiet'" + usage},
      {{L"file"}, "file: " + ESystemException(ERROR_DIRECTORY)["Text"].as_string() + '\n'},
      {{L"no/such"},
       "no/such: " + ESystemException(ERROR_PATH_NOT_FOUND)["Text"].as_string() + '\n'},
  };
  for (auto const& [arguments, reason] : commands) {
    auto const refused = velt_test::run_program(L"fault_report.exe", arguments, folder.path());
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.output, "");
    EXPECT_EQ(refused.errors, "fault_report: " + reason);
  }
  std::filesystem::directory_iterator const all(folder.path());
  EXPECT_EQ(std::distance(begin(all), end(all)), 1);
}

}  // namespace
