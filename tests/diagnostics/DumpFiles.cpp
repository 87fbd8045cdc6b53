// What a handler finds in an exception, with the real engine and a dump by the
// platform's own writer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>

#include <filesystem>
#include <string>

#include "tests/support/ChildProcess.h"
#include "velt/diagnostics/Settings.h"
#include "velt/faults/StructuredException.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

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

[[gnu::noipa]] int read_there(int const volatile* address) { return *address; }

}  // namespace

TEST(DumpFile, HoldsTheFaultAsTheExceptionTellsOfIt) {
  auto const before = std::filesystem::current_path();
  velt_test::scratch_folder const folder;
  std::filesystem::current_path(folder.path());
  SaveMiniDumpOnStructuredException = true;
  VeltDebugSetup(true);
  temporary_redirect_structured_exceptions const translated;
  std::string names;
  try {
    read_there(reinterpret_cast<int const volatile*>(0x10));
  } catch (EStructuredException& error) {
    for (auto const& [name, value] : error.values()) names += name + " ";
    EXPECT_THAT(error["AddressName"].as_string(), HasSubstr("read_there"));
    EXPECT_THAT(error["Stack"].as_string(), EndsWith("-> " + error["AddressName"].as_string()));
    auto const path = error["MiniDump"].as_string();
    EXPECT_THAT(path, StartsWith("Dumps\\diagnostics_tests_C0000005_"));
    auto const dump = velt_test::content_of(path);
    ASSERT_TRUE(dump.starts_with("MDMP"));
    auto const exception = exception_in(dump);
    ASSERT_TRUE(exception);
    EXPECT_EQ(exception->ThreadId, GetCurrentThreadId());
    EXPECT_EQ(exception->ExceptionRecord.ExceptionCode, EXCEPTION_ACCESS_VIOLATION);
    error.cancel_minidump();
    EXPECT_FALSE(std::filesystem::exists(path));
  }
  EXPECT_EQ(names, "Text Code Address Parameter0 Parameter1 MiniDump ModuleName AddressName Stack ");
  EXPECT_FALSE(GetModuleHandleA("dbghelp.dll")) << "the engine is still held";
  VeltDebugSetup(false);
  SaveMiniDumpOnStructuredException = false;
  std::filesystem::current_path(before);
}
