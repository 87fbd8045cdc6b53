// What a handler finds in an exception, with the real engine and with dumps by
// the platform's own writer, which takes seconds for each.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>

#include <filesystem>
#include <string>

#include "tests/support/ChildProcess.h"
#include "velt/diagnostics/Settings.h"
#include "velt/diagnostics/StructuredException.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

// Null if the dump has none.
MINIDUMP_EXCEPTION_STREAM const* exception_in(std::string const& dump) {
  auto const header = reinterpret_cast<MINIDUMP_HEADER const*>(dump.data());
  auto const directory =
      reinterpret_cast<MINIDUMP_DIRECTORY const*>(dump.data() + header->StreamDirectoryRva);
  for (ULONG i = 0; i < header->NumberOfStreams; ++i)
    if (directory[i].StreamType == ExceptionStream)
      return reinterpret_cast<MINIDUMP_EXCEPTION_STREAM const*>(dump.data() +
                                                                directory[i].Location.Rva);
  return nullptr;
}

// A folder of its own as the current one, and all that there is to have. The
// innermost frames of a throw are those of the compiler's run time.
class DumpFile : public ::testing::Test {
protected:
  DumpFile() {
    std::filesystem::current_path(folder.path());
    set(true);
    SkipModulesForError += ";libgcc_s_seh-1;libstdc++-6";
  }
  ~DumpFile() override {
    SkipModulesForError = skipped;
    set(false);
    std::filesystem::current_path(before);
  }

  static void expect_all(EGeneric& error, std::string const& values, std::string const& file,
                         DWORD code, std::string const& function) {
    std::string names;
    for (auto const& [name, value] : error.values()) names += name + " ";
    EXPECT_EQ(names, values);
    EXPECT_EQ(error["ModuleName"].as_string(), "diagnostics_tests");
    auto const place = error["AddressName"].as_string();
    EXPECT_THAT(place, HasSubstr(function));
    EXPECT_THAT(error["Stack"].as_string(), HasSubstr("\n-> " + place));

    auto const path = error["MiniDump"].as_string();
    EXPECT_THAT(path, MatchesRegex("Dumps\\\\diagnostics_tests_" + file +
                                   "_\\d\\d\\d\\d_\\d\\d_\\d\\d_\\d\\d_\\d\\d_\\d\\d_\\d\\d\\d\\.dmp"));
    auto const dump = velt_test::content_of(path);
    ASSERT_TRUE(dump.starts_with("MDMP"));
    auto const exception = exception_in(dump);
    ASSERT_TRUE(exception);
    EXPECT_EQ(exception->ThreadId, GetCurrentThreadId());
    EXPECT_EQ(exception->ExceptionRecord.ExceptionCode, code);
    error.cancel_minidump();
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_FALSE(GetModuleHandleA("dbghelp.dll")) << "the engine is still held";
  }

private:
  static void set(bool on) {
    SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = on;
    VeltDebugSetup(on);
  }

  std::filesystem::path const before = std::filesystem::current_path();
  velt_test::scratch_folder folder;
  std::string const skipped = SkipModulesForError;
};

[[gnu::noipa]] int read_there(int const volatile* address) { return *address; }
[[gnu::noipa]] void throw_from_here() { throw EGeneric({"Text", "thrown"}); }

}  // namespace

TEST_F(DumpFile, HoldsTheFaultAsTheExceptionTellsOfIt) {
  temporary_redirect_structured_exceptions const translated;
  try {
    read_there(reinterpret_cast<int const volatile*>(0x10));
    FAIL();
  } catch (EStructuredException& error) {
    EXPECT_THAT(error["Stack"].as_string(), EndsWith("-> " + error["AddressName"].as_string()));
    expect_all(error,
               "Text Code Address Parameter0 Parameter1 MiniDump ModuleName AddressName Stack ",
               "C0000005", EXCEPTION_ACCESS_VIOLATION, "read_there");
  }
}

TEST_F(DumpFile, HoldsTheThrowAsTheExceptionTellsOfIt) {
  try {
    throw_from_here();
    FAIL();
  } catch (EGeneric& error) {
    expect_all(error, "Text ModuleName AddressName MiniDump Stack ", "EGeneric", 0x20474343,
               "throw_from_here");
  }
}
