// The library is loaded and unloaded by a process of its own.
#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Imports.h"
#include "velt/diagnostics/MemoryOptimizer.h"

namespace {

velt_test::finished_process load(std::vector<std::wstring> const& failure = {}) {
  return velt_test::run_program(L"load_order.exe", failure, std::filesystem::temp_directory_path());
}

int count(std::string const& text, std::string const& call) {
  int found = 0;
  for (auto at = text.find(call); at != text.npos; at = text.find(call, at + 1)) ++found;
  return found;
}

}  // namespace

TEST(Loading, LeavesNothingBehindWhenItIsUnloaded) {
  auto const process = load();
  EXPECT_EQ(process.status, 0u);
  auto const made = [&](char const* call) { return count(process.output, call); };
  EXPECT_GE(made("CreateMutexW("), 3);
  EXPECT_EQ(made("CloseHandle("), made("CreateMutexW(") + made("CreateEventW("));
  EXPECT_GE(made("DeleteCriticalSection("), 3);
  EXPECT_GE(made("TlsAlloc("), 3);
  EXPECT_EQ(made("TlsFree("), made("TlsAlloc("));
  EXPECT_EQ(made("AddVectoredExceptionHandler("), 3);
  EXPECT_EQ(made("RemoveVectoredExceptionHandler("), 3);
}

TEST(Loading, FailsByAnExceptionThatTheLibraryDoesNotCatch) {
  for (auto const& [call, number] : {std::pair{L"CreateMutexW", L"1"},
                                     {L"CreateMutexW", L"4"},
                                     {L"CreateEventW", L"1"},
                                     {L"TlsAlloc", L"3"}})
    EXPECT_EQ(load({call, number}).status, 7u) << number;
}

TEST(Loading, AsksForLowFragmentationOnNewSystemsOnly) {
  for (DWORD const version : {40, 50, 51, 60}) {
    int heaps = 0;
    velt_test::Replacement const asked{VELT_CALL(GetVersionExW), [&](auto, OSVERSIONINFOW* result) {
                                         result->dwPlatformId = VER_PLATFORM_WIN32_NT;
                                         result->dwMajorVersion = version / 10;
                                         result->dwMinorVersion = version % 10;
                                         return TRUE;
                                       }};
    velt_test::Replacement const set{VELT_CALL(HeapSetInformation),
                                     [&](auto...) -> BOOL { return ++heaps; }};
    MemoryOptimizer const optimizer;
    EXPECT_EQ(heaps, version > 50 ? 2 : 0);
  }
}
