// The examples and tables of docs/diagnostics.md, run.
#include "tests/support/DocExamples.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/DocTables.h"
#include "velt/diagnostics/Settings.h"
#include "velt/diagnostics/Symbols.h"
#include "velt/exceptions/EGeneric.h"

namespace {

void read_packet(int kind, std::string& log) {
  if (kind == 7) log += "unexpected packet" + GetMyDebugStack();
}

std::string module_to_blame() {
  unsigned __int64 frames[64];
  unsigned const count = StackWalk(frames, nullptr, GetCurrentThread(), 0, 64);
  return SymGetModuleFromAddress(SymGetActualErrorAddress(frames, count));
}

std::string name_of(void* function) {
  bool const held = SymInitialize();
  auto const name = SymGetFullNameFromAddress(reinterpret_cast<std::uintptr_t>(function));
  if (held) SymCleanup();
  return name;
}

char const* word(bool setting) { return setting ? "true" : "false"; }

std::vector<velt_test::table_row> all_settings() {
  return {
      {"SaveMiniDumpOnStructuredException", "bool", word(SaveMiniDumpOnStructuredException)},
      {"SaveMiniDumpOnCppException", "bool", word(SaveMiniDumpOnCppException)},
      {"UseVEH", "bool", word(UseVEH)},
      {"ExtendDebugInformationFromException", "bool", word(ExtendDebugInformationFromException)},
      {"MiniDumpType", "unsigned long", std::to_string(MiniDumpType)},
      {"MiniDumpExcludedTypes", "std::string", MiniDumpExcludedTypes},
      {"MiniDumpFileFormat", "char const* const", MiniDumpFileFormat},
      {"SkipModulesForError", "std::string", SkipModulesForError},
  };
}

// Before any test changes them.
auto const settings_at_start = all_settings();

void set_up_diagnostics() {
  VeltDebugSetup(true);                  // stacks
  MiniDumpType = MiniDumpWithDataSegs;   // dumps with global variables
  MiniDumpExcludedTypes += ";ETimeout";  // thrown every day
}

velt_test::scratch_folder const folder;

int read_setting() {
  SaveMiniDumpOnCppException = false;
  folder.add("a.dmp", "dump");
  throw EGeneric({"MiniDump", (folder.path() / "a.dmp").string()});
}

int setting_or(int otherwise) {
  try {
    return read_setting();
  } catch (EGeneric& error) {
    error.cancel_minidump();
    return otherwise;
  }
}

}  // namespace

TEST(DiagnosticsDocExamples, StandOnThePageAsTheyRunHere) {
  velt_test::expect_doc_examples_run("diagnostics.md", __FILE__);
}

TEST(DiagnosticsDocExamples, StackInALog) {
  std::string log;
  read_packet(7, log);
  EXPECT_THAT(log, testing::StartsWith("unexpected packet\n-> ntdll!"));
}

TEST(DiagnosticsDocExamples, BlameAndNames) {
  ASSERT_TRUE(SymInitialize());
  EXPECT_EQ(module_to_blame(), "diagnostics_tests");
  SymCleanup();
  EXPECT_THAT(name_of(reinterpret_cast<void*>(&GetTickCount)), testing::HasSubstr("!"));
  EXPECT_THAT(name_of(reinterpret_cast<void*>(&name_of)),
              testing::AllOf(testing::StartsWith("diagnostics_tests!"),
                             testing::HasSubstr("[DocExamples.cpp#")));
}

TEST(DiagnosticsDocExamples, SettingsHaveTheseDefaults) {
  auto table = velt_test::doc_table("diagnostics.md", "settings");
  table.erase(table.begin());
  for (auto& row : table) row.pop_back();
  EXPECT_EQ(table, settings_at_start);
}

TEST(DiagnosticsDocExamples, Setup) {
  auto const excluded = MiniDumpExcludedTypes;
  set_up_diagnostics();
  EXPECT_TRUE(ExtendDebugInformationFromException);
  EXPECT_EQ(MiniDumpType, 1u);
  EXPECT_EQ(MiniDumpExcludedTypes, excluded + ";ETimeout");
  VeltDebugSetup(false);
  MiniDumpType = 0;
  MiniDumpExcludedTypes = excluded;
}

TEST(DiagnosticsDocExamples, HarmlessException) {
  bool const dumps = SaveMiniDumpOnCppException;
  EXPECT_EQ(setting_or(5), 5);
  EXPECT_FALSE(std::filesystem::exists(folder.path() / "a.dmp"));
  SaveMiniDumpOnCppException = dumps;
}
