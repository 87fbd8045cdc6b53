// The example road_of_one_event, run as a user runs it.
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
using ::testing::MatchesRegex;
using ::testing::StartsWith;
using velt_test::content_of;
using velt_test::finished_process;
using velt_test::frame;
using velt_test::lines_of;
using velt_test::source_folder;
using velt_test::without_offsets;

constexpr wchar_t program[] = L"road_of_one_event.exe";
std::wstring const papers = (source_folder / "examples/road_of_one_event/papers").native();

// A line as it is in each run of each build, or nothing for the frames around the
// example's own functions.
std::string form_of(std::string line) {
  if (line.starts_with("-> ") &&
      !std::regex_search(line, std::regex("\\[(Jobs|Paper|Prices)\\.cpp#")))
    return {};
  if (line.find("operator()") != line.npos) return {};
  if (line.starts_with("Address:")) return "Address:";
  struct {
    char const *varying, *form;
  } const rules[] = {{"_20[0-9_]+\\.dmp", ".dmp"},
                     {"has [0-9]+ KB", "has # KB"},
                     {"Pool 0x[0-9a-f]+", "Pool #"},
                     {"Idle=[01]", "Idle=#"},
                     {"(Jobs|Paper)\\.cpp#[0-9]+", "$1.cpp#"},  // inlined or not
                     {" +$", ""}};
  for (auto const& [varying, form] : rules)
    line = std::regex_replace(line, std::regex(varying), form);
  return without_offsets(line);
}

// In one text, from a line that begins so to one that does.
std::string part(std::string const& text, std::string const& begin, std::string const& end) {
  auto const from = ('\n' + text).find('\n' + begin);
  if (from == text.npos) return "nothing begins with " + begin;
  return without_offsets(text.substr(from, text.find('\n' + end, from) - from));
}

class RoadOfOneEvent : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    scratch = new velt_test::scratch_folder;
    result = new finished_process(
        velt_test::run_program(program, {L"--work", L"größe", papers}, scratch->path()));
  }
  static void TearDownTestSuite() {
    delete result;
    delete scratch;
  }

  static inline velt_test::scratch_folder* scratch;
  static inline finished_process* result;
};

TEST_F(RoadOfOneEvent, FaultIsKeptWithPlaceStackAndDump) {
  auto const fault = part(result->output, "harbour.order: EStr", "loft.stock");
  auto const place = frame("road_of_one_event", "cents_of", "Prices.cpp", "return found->cents");
  EXPECT_THAT(fault, StartsWith("harbour.order: EStructuredException\n"
                                "Text: Access Violation (read from 0x20)\n"
                                "Code: -1073741819 (0xc0000005)\nAddress: "));
  EXPECT_THAT(fault, HasSubstr("\nModuleName: road_of_one_event\nAddressName: " + place + '\n'));
  EXPECT_THAT(fault, HasSubstr("\n-> velt!TThreadContext::ThreadBody["));
  EXPECT_THAT(fault, HasSubstr("\n-> " + place + "\nFile: harbour.order\nLine: 2 (0x2)\n"));
  EXPECT_THAT(result->output,
              HasSubstr("\nharbour.order came to nothing; RethrowException() throws: "
                        "Access Violation (read from 0x20)\n"));

  std::filesystem::path dump;
  for (auto const& file : std::filesystem::directory_iterator(scratch->path() / L"größe" / "Dumps"))
    dump = file.path();
  EXPECT_THAT(content_of(dump), StartsWith("MDMP"));
  EXPECT_THAT(fault, HasSubstr("\nMiniDump: Dumps\\" + dump.filename().string() + '\n'));
  EXPECT_THAT(fault, EndsWith("\nThe dump has " + std::to_string(file_size(dump) / 1024) + " KB."));
}

TEST_F(RoadOfOneEvent, ExceptionThatAJobLetPassIsTheLastWordOfItsWorker) {
  auto const runaway = part(result->output, "(!)", "File: mill.stock");
  EXPECT_THAT(runaway, StartsWith("(!) Thread runaway with exception EGeneric:\n"
                                  "Text: Not a number\nQuantity: a dozen\n"));
  EXPECT_THAT(runaway, HasSubstr("\n-> " +
                                 frame("road_of_one_event", "quantity_in", "Paper.cpp",
                                       "throw EGeneric({\"Text\", \"Not a") +
                                 '\n'));
}

TEST_F(RoadOfOneEvent, OtherJobsAreDoneAndThePoolServesOn) {
  EXPECT_EQ(result->status, 0);
  EXPECT_EQ(result->errors, "");
  std::vector<std::string> done;
  for (auto const& line : lines_of(result->output))
    if (std::regex_match(line, std::regex("[a-z]+\\.(order|stock)(:| came to) [0-9.]+")))
      done.push_back(line);
  EXPECT_THAT(done, testing::UnorderedElementsAre("baker.order: 23.60", "cellar.stock: 1335.50",
                                                  "loft.stock: 735.00", "orchard.stock: 36.00",
                                                  "smith.order: 95.00", "baker.order came to 23.60",
                                                  "smith.order came to 95.00"));
  auto const lines = lines_of(result->output);
  EXPECT_EQ(form_of(lines.front()),
            "Thread Pool # RunningJobs=7 Threads=0 Queue=7 Idle=# "
            "MaxTotalThreads=0 MinIdleThreads=0");
  EXPECT_EQ(form_of(lines.at(lines.size() - 4)),
            "Thread Pool # RunningJobs=0 Threads=1 Queue=0 Idle=# MaxTotalThreads=1 "
            "MinIdleThreads=0");
}

TEST_F(RoadOfOneEvent, ReadmeShowsARealTranscript) {
  std::vector<std::string> printed, shown;
  for (auto const& line : lines_of(result->output)) printed.push_back(form_of(line));
  std::string const indent = "    ";
  auto const readme = content_of(source_folder / "README.md");
  auto const begin = readme.find("\n    Thread Pool ");
  ASSERT_NE(begin, readme.npos);
  for (auto const& line : lines_of(readme.substr(begin + 1))) {
    if (!line.starts_with(indent)) break;
    shown.push_back(form_of(line.substr(indent.size())));
  }
  EXPECT_GT(shown.size(), 40u);
  EXPECT_THAT(printed, IsSupersetOf(shown));
}

TEST_F(RoadOfOneEvent, WrongUseIsOneLineAndNoJobBegins) {
  velt_test::scratch_folder const folder;
  folder.add("file", "");
  create_directories(folder.path() / "bad/b.order");
  create_directory(folder.path() / "good");
  folder.add("good/a.order", "salt = 1\n");
  auto const text = [](int code) { return ESystemException(code)["Text"].as_string(); };
  std::string const usage = "; usage: road_of_one_event [--help] [--work FOLDER] [PAPERS]\n";
  struct {
    std::vector<std::wstring> arguments;
    std::string reason;
  } const commands[] = {
      {{L"--quiet"}, "unknown option '--quiet'" + usage},
      {{L"--work"}, "--work without a folder" + usage},
      {{L"a", L"b"}, "more than one folder of papers" + usage},
      {{L"none"}, "none: " + text(ERROR_FILE_NOT_FOUND) + '\n'},
      {{L"."}, ".: no orders and no stock\n"},
      {{L"bad"}, "bad\\b.order: " + text(ERROR_ACCESS_DENIED) + '\n'},
      {{L"--work", L"file", L"good"}, "file: " + text(ERROR_DIRECTORY) + '\n'},
  };
  for (auto const& [arguments, reason] : commands) {
    auto const refused = velt_test::run_program(program, arguments, folder.path());
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.output, "");
    EXPECT_EQ(refused.errors, "road_of_one_event: " + reason);
  }
  EXPECT_FALSE(exists(folder.path() / "Dumps"));
}

}  // namespace
