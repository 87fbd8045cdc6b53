// The example typed_values, run as a user runs it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/DocTables.h"

namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using velt_test::content_of;
using velt_test::doc_table;
using velt_test::finished_process;

std::filesystem::path const source_folder = VELT_SOURCE_DIR;

class TypedValues : public ::testing::Test {
protected:
  TypedValues() { set_zone(L"UTC0"); }
  ~TypedValues() override { set_zone(nullptr); }

  // The zone of the programs that are run.
  static void set_zone(wchar_t const* zone) { SetEnvironmentVariableW(L"TZ", zone); }

  static finished_process run(std::vector<std::wstring> const& arguments,
                              std::filesystem::path const& folder = source_folder) {
    return velt_test::run_program(L"typed_values.exe", arguments, folder);
  }

  static finished_process run_on(std::string const& settings) {
    velt_test::scratch_folder const scratch;
    scratch.add("my.settings", settings);
    return run({L"my.settings"}, scratch.path());
  }
};

TEST_F(TypedValues, ServiceSettingsReadAsExpected) {
  auto const result = run({});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output, content_of(source_folder / "tests/examples/service.expected"));
}

TEST_F(TypedValues, MalformedLinesAreNamedAndTheRestIsShown) {
  struct {
    char const *line, *reason;
  } const malformed[] = {
      {"no colon here", "no ':' behind the name"},
      {" : int = 1", "no name"},
      {"a: int 3", "no '=' behind the type"},
      {"a: integer = 3", "unknown type: 'integer'"},
      {"a: list of lists = 3", "unknown type: 'lists'"},
      {"a: int = 12x", "not a whole number from -2147483648 to 2147483647: '12x'"},
      {"a: int = 2147483648", "not a whole number from -2147483648 to 2147483647: '2147483648'"},
      {"a: int = １２", "not a whole number from -2147483648 to 2147483647: '１２'"},
      {"a: ulong = -1", "not a whole number from 0 to 4294967295: '-1'"},
      {"a: int64 = 9223372036854775808",
       "not a whole number of at most 64 bits: '9223372036854775808'"},
      {"a: double = 1e999", "not a finite number such as -1.5 or 2e9: '1e999'"},
      {"a: double = inf", "not a finite number such as -1.5 or 2e9: 'inf'"},
      {"a: double =", "not a finite number such as -1.5 or 2e9: ''"},
      {"a: bool = yes", "not true or false: 'yes'"},
      {"a: time = today", "not a local time such as 2026-02-28T23:59:59: 'today'"},
      {"a: utctime = 2026-02-29T00:00:00",
       "not a UTC time such as 2026-02-28T23:59:59: '2026-02-29T00:00:00'"},
      {"a: text = Ελλάδα", "not text within the ANSI code page: 'Ελλάδα'"},
      {"a: wide = \xC3\x28", "not UTF-8 text"},
      {"a: list of int = 1,, 3", "not a whole number from -2147483648 to 2147483647: ''"},
  };
  std::string settings = "first: int = 1\n", errors;
  int number = 1;
  for (auto const& [line, reason] : malformed) {
    settings += std::string(line) + '\n';
    errors += "my.settings:" + std::to_string(++number) + ": " + reason + '\n';
  }
  auto const result = run_on(settings + "last: int = 2");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, errors);
  EXPECT_THAT(result.output, HasSubstr("my.settings: 2 settings\n"));
  EXPECT_THAT(result.output, HasSubstr("\nfirst ─"));
  EXPECT_THAT(result.output, HasSubstr("\nlast ─"));
}

TEST_F(TypedValues, LocalTimesFollowTheZone) {
  set_zone(L"EST5EDT");
  auto const result = run_on(
      "noon: time = 2026-07-01T12:00:00\n"
      "left out: time = 2026-03-08T02:30:00\n");
  EXPECT_THAT(result.output, HasSubstr("as_time     2026-07-01T16:00:00.000\n"));
  EXPECT_THAT(result.output, HasSubstr("as_string   Wed Jul 01 12:00:00 2026\n"));
  EXPECT_EQ(result.errors,
            "my.settings:2: not a local time such as 2026-02-28T23:59:59: '2026-03-08T02:30:00'\n");
}

TEST_F(TypedValues, LinesKeepTheirWidthWhateverTheyHold) {
  auto const result = run_on("日本語" + std::string(90, 'x') +
                             ": wide = a\tb 日本語日本語日本語日本語日本語日本語\n");
  EXPECT_THAT(result.output, HasSubstr("\n日本語" + std::string(56, 'x') + "… ── std::wstring\n"));
  EXPECT_THAT(result.output, HasSubstr("  as_ulong    0                     as_wstring  "
                                       "a␉b 日本語日本語日本語日本語日…\n"));
}

TEST_F(TypedValues, FilesOfOtherEditorsAreRead) {
  auto const result = run_on("\xEF\xBB\xBF# settings\r\n\r\na: text = x\r\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output, HasSubstr("as_string   x\n"));
}

TEST_F(TypedValues, AFileMayHaveAnyName) {
  velt_test::scratch_folder const scratch;
  scratch.add(L"größe Ω.settings", "a: int = 1\n");
  auto const result = run({L"größe Ω.settings"}, scratch.path());
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output, HasSubstr("größe Ω.settings: 1 setting\n"));
}

TEST_F(TypedValues, WhatCannotBeReadIsOneLine) {
  auto const missing = run({L"no-such.settings"});
  EXPECT_EQ(missing.status, 2);
  EXPECT_EQ(missing.output, "");
  EXPECT_EQ(missing.errors, "typed_values: no-such.settings: No such file or directory\n");

  auto const folder = run({L"examples"});
  EXPECT_EQ(folder.status, 2);
  EXPECT_EQ(folder.output, "");
  EXPECT_EQ(folder.errors, "typed_values: examples: Is a directory\n");
}

TEST_F(TypedValues, WrongUseIsOneLine) {
  auto const two_files = run({L"a", L"b"});
  EXPECT_EQ(two_files.status, 2);
  EXPECT_EQ(two_files.output, "");
  EXPECT_EQ(two_files.errors,
            "typed_values: more than one file; usage: typed_values [--help] [FILE]\n");

  auto const unknown = run({L"--quiet"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_EQ(unknown.output, "");
  EXPECT_EQ(unknown.errors,
            "typed_values: unknown option '--quiet'; usage: typed_values [--help] [FILE]\n");
}

TEST_F(TypedValues, DocumentationListsTheTypesThatHelpLists) {
  auto const result = run({L"--help"});
  EXPECT_EQ(result.status, 0);
  std::string types;
  auto const rows = doc_table("examples.md", "setting types");
  for (auto row = rows.begin() + 1; row != rows.end(); ++row) {
    auto word = row->at(0);
    word.resize(10, ' ');
    types += "  " + word + row->at(2) + '\n';
  }
  EXPECT_THAT(result.output, EndsWith("and the types are\n\n" + types));
}

TEST_F(TypedValues, DocumentationShowsTheRealReport) {
  auto const page = content_of(source_folder / "docs/examples.md");
  auto const begin = page.find("\n    store.limit");
  ASSERT_NE(begin, page.npos);
  std::string block;
  for (auto line = begin + 1; page.compare(line, 4, "    ") == 0; line = page.find('\n', line) + 1)
    block += page.substr(line + 4, page.find('\n', line) + 1 - line - 4);
  EXPECT_THAT(content_of(source_folder / "tests/examples/service.expected"), HasSubstr(block));
}

}  // namespace
