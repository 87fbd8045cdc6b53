// The examples and tables of docs/diagnostics.md, docs/faults.md and docs/symbols.md, run.
#include "tests/support/DocExamples.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/DocTables.h"
#include "velt/base/SmartPtr.h"
#include "velt/diagnostics/DebugSnapshot.h"
#include "velt/diagnostics/Settings.h"
#include "velt/diagnostics/SmartPtrRefsLogger.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/faults/StackOverflowException.h"
#include "velt/faults/StructuredException.h"
#include "velt/locks/Event.h"
#include "velt/symbols/Symbols.h"

namespace {

int first_of(int const volatile* numbers, std::string& log) {
  try {
    return *numbers;
  } catch (EStructuredException const& error) {
    log += error.what();
    return 0;
  }
}

[[gnu::noipa]] int nest(std::size_t depth) {
  char volatile room[1000];
  room[0] = 1;
  return depth == 0 ? 0 : nest(depth + 1) + room[0];
}
void parse(std::string const& document) {
  if (document.starts_with("((")) nest(document.size());
}

bool try_parsing(std::string const& document, std::string& log) {
  try {
    parse(document);
    return true;
  } catch (EStackOverflowException const& error) {
    log += error.what();
    EStackOverflowException::ResetStack();
    return false;
  }
}

void make_room_for_overflow() {
  redirect_structured_exceptions();
  ULONG bytes = 16384;
  SetThreadStackGuarantee(&bytes);
  EStackOverflowException::ResetStack();  // Wine heeds the guarantee from here on
}

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

void watch(TEvent const& progress, std::string& log) {
  if (!progress.Signaled(30'000)) log += TakeDebugSnapshot();
}

struct Document : SmartPtrObj {
  SmartPtrRefsLogger holders;
};

class DocumentPtr {
public:
  DocumentPtr(SmartPtr<Document> const& target) : document(target) {
    document->holders.AddPointerRef(this);
  }
  DocumentPtr(DocumentPtr const& other) : DocumentPtr(other.document) {}
  DocumentPtr& operator=(DocumentPtr const&) = delete;
  ~DocumentPtr() { document->holders.DelPointerRef(this); }

  Document* operator->() const { return document.get(); }

private:
  SmartPtr<Document> document;
};

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
  VeltDebugSetup(true);                                  // stacks
  SkipModulesForError += ";libgcc_s_seh-1;libstdc++-6";  // where every throw begins
  MiniDumpType = MiniDumpWithDataSegs;                   // dumps with global variables
  MiniDumpExcludedTypes += ";ETimeout";                  // thrown every day
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

int guests_in_a_room(int guests, int rooms) { return guests / rooms; }

int plan(int guests, int rooms) {
  try {
    return guests_in_a_room(guests, rooms);
  } catch (std::exception const& error) {
    std::puts(error.what());
    return 0;
  }
}

void start_diagnostics() {
  VeltDebugSetup(true);                                         // stacks
  SkipModulesForError += ";libgcc_s_seh-1;libstdc++-6;msvcrt";  // not to blame
  redirect_structured_exceptions();                             // faults of this thread
}

void start_diagnostics_of_a_service() {
  start_diagnostics();
  SaveMiniDumpOnCppException = false;  // only faults write dumps
  SymInitialize();                     // kept to the end: each stack takes less time
}

int number_in(std::string const& text) {
  try {
    return std::stoi(text);
  } catch (std::exception const& error) {
    throw EGeneric({"Text", error.what()}, {"Input", text});
  }
}

// Whom the library blames for the failure.
std::string blamed_for(void (*fail)()) {
  try {
    fail();
  } catch (EGeneric const& error) {
    return error["ModuleName"].as_string();
  }
  return "nobody";
}

void throw_it() { throw EGeneric({"Text", "no room"}); }

void pass_a_bad_pointer() { std::fclose(reinterpret_cast<FILE*>(0x10)); }

class FirstSteps : public testing::Test {
protected:
  ~FirstSteps() override {
    VeltDebugSetup(false);
    SkipModulesForError = skipped;
  }

private:
  temporary_redirect_structured_exceptions const until_the_end;
  std::string const skipped = SkipModulesForError;
};

}  // namespace

TEST_F(FirstSteps, AFaultIsReportedAndTheProgramGoesOn) {
  start_diagnostics_of_a_service();
  int volatile const no_rooms = 0;  // what the compiler sees it computes itself
  testing::internal::CaptureStdout();
  EXPECT_EQ(plan(12, no_rooms), 0);
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::AllOf(testing::StartsWith("Text: Divide by Zero\nCode: -1073741676"),
                             testing::HasSubstr("\nModuleName: diagnostics_tests\n"),
                             testing::HasSubstr("\nStack: \n-> ntdll!")));
  SymCleanup();
}

TEST_F(FirstSteps, TheRunTimeIsBlamedUnlessItsModulesAreSkipped) {
  VeltDebugSetup(true);
  EXPECT_EQ(blamed_for(throw_it), "libgcc_s_seh-1");
  EXPECT_EQ(blamed_for(pass_a_bad_pointer), "msvcrt");
  start_diagnostics();
  EXPECT_EQ(blamed_for(throw_it), "diagnostics_tests");
  EXPECT_EQ(blamed_for(pass_a_bad_pointer), "diagnostics_tests");
}

TEST_F(FirstSteps, StandardExceptionsBecomeComplete) {
  start_diagnostics();
  try {
    number_in("twelve");
    FAIL();
  } catch (EGeneric const& error) {
    EXPECT_EQ(error["Text"].as_string(), "stoi");
    EXPECT_EQ(error["Input"].as_string(), "twelve");
    EXPECT_EQ(error["ModuleName"].as_string(), "diagnostics_tests");
  }
}

TEST(DiagnosticsDocExamples, StandOnThePageAsTheyRunHere) {
  for (auto const page : {"diagnostics.md", "faults.md", "symbols.md"})
    velt_test::expect_doc_examples_run(page, __FILE__);
}

TEST(DiagnosticsDocExamples, FaultInALog) {
  temporary_redirect_structured_exceptions const translated;
  std::string log;
  int const volatile* volatile const bad = reinterpret_cast<int const volatile*>(0x10);
  EXPECT_EQ(first_of(bad, log), 0);
  EXPECT_THAT(log, testing::StartsWith("Text: Access Violation (read from 0x10)\n"
                                       "Code: -1073741819 (0xc0000005)\n"
                                       "Address: "));
  EXPECT_THAT(log, testing::EndsWith("Parameter0: 0 (0x0)\nParameter1: 16 (0x10)"));
}

TEST(DiagnosticsDocExamples, LogsOfStacksAndOfOverflows) {
  std::string log;
  read_packet(7, log);
  EXPECT_THAT(log, testing::StartsWith("unexpected packet\n-> ntdll!"));
  log.clear();
  watch(TEvent(true, true), log);
  EXPECT_EQ(log, "");
  int parsed = 0;
  std::thread([&] {
    make_room_for_overflow();
    for (int round = 0; round < 2; ++round) parsed += try_parsing("((((", log);
    parsed += try_parsing("()", log);
  }).join();
  EXPECT_EQ(parsed, 1);
  EXPECT_TRUE(log.starts_with("Text: Stack Overflow\nCode: -1073741571 (0xc00000fd)\n")) << log;
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

TEST_F(FirstSteps, Setup) {
  auto const excluded = MiniDumpExcludedTypes;
  set_up_diagnostics();
  EXPECT_EQ(MiniDumpExcludedTypes, excluded + ";ETimeout");
  MiniDumpType = 0;
  MiniDumpExcludedTypes = excluded;
}

TEST(DiagnosticsDocExamples, HarmlessException) {
  bool const dumps = SaveMiniDumpOnCppException;
  EXPECT_EQ(setting_or(5), 5);
  EXPECT_FALSE(std::filesystem::exists(folder.path() / "a.dmp"));
  SaveMiniDumpOnCppException = dumps;
}

TEST(DiagnosticsDocExamples, LeakIsCounted) {
  std::vector<DocumentPtr> history;
  std::string log;
  SmartPtr<Document> const document = MakeCounted<Document>();
  document->holders.EnableSmartPtrRefsLogger();
  {
    DocumentPtr const window(document);
    history.push_back(window);  // where it is forgotten
  }
  log += document->holders.GetObjectReferences(nullptr);
  EXPECT_THAT(log,
              testing::AnyOf(testing::StartsWith(std::string(76, '-') + "\nReferences: 1\nStack: "),
                             testing::StartsWith("Refs: 1, Stack: ")));
  history.clear();
  EXPECT_EQ(document->holders.GetObjectReferences(nullptr), "");
}
