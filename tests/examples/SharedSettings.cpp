// The example shared_settings, run as a user runs it, and its test of the log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "examples/shared_settings/Log.h"
#include "tests/examples/Transcript.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/text/Encoding.h"

namespace {

using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using velt_test::content_of;
using velt_test::finished_process;
using velt_test::lines_of;
using velt_test::source_folder;

std::wstring const service_settings = (source_folder / "examples/service.settings").native();

// The log as standard output has it.
std::string shown(std::string log) {
  std::erase(log, '\r');
  return as_string(as_wstring(log), CP_UTF8);
}

std::string system_text(int code) { return ESystemException(code)["Text"].as_string(); }

// What two runs have in common.
std::string without_numbers(std::string const& text) {
  std::string form;
  for (char const c : text)
    if (!std::isdigit(static_cast<unsigned char>(c)))
      form += c;
    else if (!form.ends_with('#'))
      form += '#';
  return form;
}

class SharedSettings : public ::testing::Test {
protected:
  finished_process run(std::vector<std::wstring> const& arguments) const {
    return velt_test::run_program(L"shared_settings.exe", arguments, scratch.path());
  }

  void expect_refusal(std::vector<std::wstring> const& arguments,
                      std::string const& message) const {
    auto const result = run(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "shared_settings: " + message + '\n');
    EXPECT_FALSE(exists(scratch.path() / "shared_settings.log"));
  }

  velt_test::scratch_folder scratch;
};

struct logged_line {
  int number, revision;
};

// By thread, in the order of the log. Whatever is no line stands under "".
std::map<std::string, std::vector<logged_line>> by_thread(std::string const& log) {
  std::map<std::string, std::vector<logged_line>> threads;
  for (auto const& line : lines_of(log)) {
    char kind[8] = "";
    int thread = 0;
    logged_line read{};
    auto const revision = line.rfind(" in revision ");
    bool const whole =
        revision != line.npos && line.ends_with(".\r") &&
        std::sscanf(line.c_str(), "%7s %d line %d: ", kind, &thread, &read.number) == 3 &&
        std::sscanf(line.c_str() + revision, " in revision %d.", &read.revision) == 1;
    threads[whole ? std::string(kind) + ' ' + std::to_string(thread) : ""].push_back(read);
  }
  return threads;
}

TEST_F(SharedSettings, ThreadsShareOneListAndOneLog) {
  scratch.add("shared_settings.log", "of another run\r\n");
  auto const result = run({L"--milliseconds", L"400", service_settings});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");

  auto const log = content_of(scratch.path() / "shared_settings.log");
  ASSERT_EQ(result.output.substr(0, shown(log).size()), shown(log));
  int reads = 0, writes = 0, busy = -1, revision = -1, lines = 0;
  auto const results = result.output.substr(shown(log).size());
  ASSERT_EQ(std::sscanf(results.c_str(),
                        "%d reads and %d writes by 5 threads in 400 ms\n"
                        "the lock was busy %d %% of the time\n"
                        "revision %d: no write lost\n"
                        "shared_settings.log: %d lines, none broken\n",
                        &reads, &writes, &busy, &revision, &lines),
            5)
      << results;
  EXPECT_GT(reads, 0);
  EXPECT_GT(writes, 0);
  EXPECT_EQ(revision, writes);
  EXPECT_GE(busy, 0);
  EXPECT_LE(busy, 100);
  EXPECT_EQ(lines, lines_of(log).size());
}

TEST_F(SharedSettings, EachThreadsLinesAreWholeAndNumberedFromOne) {
  ASSERT_EQ(run({L"--milliseconds", L"400", L"--log", L"größe.log", service_settings}).status, 0);
  auto const threads = by_thread(content_of(scratch.path() / L"größe.log"));
  std::vector<std::string> names;
  for (auto const& [name, lines] : threads) {
    names.push_back(name);
    logged_line last{0, name.starts_with("writer") ? 0 : -1};
    for (auto const& line : lines) {
      EXPECT_EQ(line.number, last.number + 1) << name;
      EXPECT_GE(line.revision, last.revision) << name;
      last = line;
    }
  }
  EXPECT_EQ(names,
            (std::vector<std::string>{"reader 1", "reader 2", "reader 3", "writer 1", "writer 2"}));
}

TEST_F(SharedSettings, SettingsOfAnyKindAreLogged) {
  scratch.add("my.settings", "\xEF\xBB\xBF# a comment\r\n\r\nnothing: list of int =\r\n");
  EXPECT_EQ(run({L"--milliseconds", L"50", L"my.settings"}).status, 0);
  EXPECT_THAT(content_of(scratch.path() / "shared_settings.log"),
              HasSubstr(" line 1: nothing = nothing in revision "));

  scratch.add("my.settings", "long: text = \"a\tb\" " + std::string(9000, 'x'));
  EXPECT_EQ(run({L"--milliseconds", L"50", L"my.settings"}).status, 0);
}

TEST_F(SharedSettings, MalformedFilesLeaveNoLog) {
  struct {
    char const *content, *message;
  } const files[] = {
      {"", "no settings"},
      {"# nothing\n \t\n", "no settings"},
      {"a: wide = \xC3\x28\n", "not UTF-8 text"},
      {"a: int = 1\nb = 2\n", "'b = 2': no ':' behind the name"},
      {"a: int = 1x\nb = 2\n",
       "'a: int = 1x': not a whole number from -2147483648 to 2147483647: '1x'"},
      {"a: integer = 3", "'a: integer = 3': unknown type: 'integer'"},
      {"a: text = 5\" wide\nb: int = 1\n",
       "'a: text = 5 wide': a double quote without its partner"},
      {"# 5\" wide\r\nb: text = 7\" wide\n", "'# 5 wide': a double quote without its partner"},
      {"a: text = 5\" wide", "'a: text = 5 wide': a double quote without its partner"},
  };
  for (auto const& [content, message] : files) {
    scratch.add("my.settings", content);
    expect_refusal({L"my.settings"}, std::string("my.settings: ") + message);
  }
}

TEST_F(SharedSettings, FilesThatCannotBeOpenedLeaveNoLog) {
  expect_refusal({L"no-such.settings"}, "no-such.settings: " + system_text(ERROR_FILE_NOT_FOUND));
  create_directory(scratch.path() / "folder");
  expect_refusal({L"folder"}, "folder: " + system_text(ERROR_ACCESS_DENIED));
  scratch.add("my.settings", "a: int = 1\n");
  expect_refusal({L"--log", L"folder", L"my.settings"},
                 "folder: " + system_text(ERROR_ACCESS_DENIED));
  expect_refusal({L"--log", L"my.settings", L"my.settings"},
                 "my.settings: " + system_text(ERROR_SHARING_VIOLATION));
  EXPECT_EQ(content_of(scratch.path() / "my.settings"), "a: int = 1\n");
}

TEST_F(SharedSettings, WrongUseIsOneLine) {
  struct {
    std::vector<std::wstring> arguments;
    char const* reason;
  } const commands[] = {
      {{L"a", L"b"}, "more than one file"},
      {{L"--quiet"}, "unknown option '--quiet'"},
      {{L"--log"}, "nothing behind --log"},
      {{L"--milliseconds", L"0"}, "not a number from 1 to 60000: '0'"},
      {{L"--milliseconds", L"60001"}, "not a number from 1 to 60000: '60001'"},
      {{L"--milliseconds", L"1s"}, "not a number from 1 to 60000: '1s'"},
  };
  for (auto const& [arguments, reason] : commands)
    expect_refusal(arguments, std::string(reason) +
                                  "; usage: shared_settings [--help] [--milliseconds N] "
                                  "[--log LOG] [FILE]");
}

TEST_F(SharedSettings, DocumentationShowsRealResults) {
  auto const page = content_of(source_folder / "docs/examples.md");
  auto const begin = page.find("    reader 1 line 1: ");
  ASSERT_NE(begin, page.npos);
  std::vector<std::string> documented;
  for (auto const& line : lines_of(page.substr(begin))) {
    if (!line.starts_with("    ")) break;
    documented.push_back(without_numbers(line.substr(4)));
  }
  create_directory(scratch.path() / "build");
  auto const result = run({L"--log", L"build/shared_settings.log", service_settings});
  auto const printed = lines_of(without_numbers(result.output));
  ASSERT_GT(documented.size(), 10u);
  ASSERT_GT(printed.size(), 4u);
  EXPECT_EQ(std::vector(documented.end() - 4, documented.end()),
            std::vector(printed.end() - 4, printed.end()));
  EXPECT_THAT(printed, IsSupersetOf(documented.begin(), documented.begin() + 6));
}

TEST(SharedSettingsLog, CountsEachLineThatIsBrokenOrMissing) {
  line_counts const written = {{"reader 1", 3}, {"writer 1", 1}};
  struct {
    char const* content;
    int broken;
  } const logs[] = {
      {"reader 1 line 1: a.\r\nwriter 1 line 1: b.\r\nreader 1 line 2: c.\r\nreader 1 line 3: "
       "d.\r\n",
       0},
      {"", 4},
      // a line is missing
      {"reader 1 line 1: a.\r\nwriter 1 line 1: b.\r\nreader 1 line 3: d.\r\n", 1},
      {"reader 1 line 1: a.\r\nwriter 1 line 1: b.\r\nreader 1 line 2: c.\r\n", 1},
      // a line has no end, or is not its own
      {"reader 1 line 1: a.\r\nwriter 1 line 1: b.\r\nreader 1 line 2: c.\r\nreader 1 line 3: d",
       1},
      {"reader 1 line 1: a.\r\nwriter 1 line 1: b.\r\nreader 1 line 2: c.\r\nreader 1 line 3: d.",
       1},
      {"reader 1 line 1: a.\r\nwriter 1 line 1reader 1 line 2: c.\r\n: b.\r\nreader 1 line 3: "
       "d.\r\n",
       2},
      {"reader 1 line 1: awriter 1 line 1: b.\r\n.\r\nreader 1 line 2: c.\r\nreader 1 line 3: "
       "d.\r\n",
       1},
      // two lines in the wrong order
      {"reader 1 line 2: a.\r\nwriter 1 line 1: b.\r\nreader 1 line 1: c.\r\nreader 1 line 3: "
       "d.\r\n",
       1},
      // a line too many
      {"reader 1 line 1: a.\r\nwriter 1 line 1: b.\r\nreader 1 line 2: c.\r\nreader 1 line 3: "
       "d.\r\n"
       "reader 2 line 1: e.\r\n",
       1},
  };
  for (auto const& [content, broken] : logs)
    EXPECT_EQ(broken_lines(content, written), broken) << content;
}

}  // namespace
