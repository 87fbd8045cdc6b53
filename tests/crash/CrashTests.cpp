// How processes end that fail: each way is run in a process of its own.
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

class Crash : public ::testing::TestWithParam<wchar_t const*> {
protected:
  void expect_end(std::string const& way, unsigned long status, char const* output) const {
    velt_test::scratch_folder const folder;
    auto const process =
        velt_test::run_program(GetParam(), {std::wstring(way.begin(), way.end())}, folder.path());
    EXPECT_EQ(process.status, status) << way;
    EXPECT_EQ(process.output, output) << way;
    EXPECT_TRUE(std::filesystem::is_empty(folder.path())) << way;
  }
};

}  // namespace

TEST_P(Crash, ByAFaultThatNobodyTranslatesHasItsCode) {
  expect_end("fault_without_try", 0xC0000005, "unhandled c0000005");
}

TEST_P(Crash, ByAFaultThatMustNotPassIsATermination) {
  expect_end("fault_under_other_handlers", 3, "terminated by Access Violation (read from 0x10)");
  expect_end("fault_in_noexcept_with_try", 3, "terminated amid an unwinding");
  expect_end("new_throw_in_noexcept", 3, "terminated by something else");
}

TEST_P(Crash, IsPreventedWhereThereIsNoCallSite) {
  for (char const* way : {"fault_in_destructor", "fault_without_the_option"})
    expect_end(way, 0, "caught");
}

// The end of a handler restores the guard, too.
TEST_P(Crash, ByASecondOverflowIsPreventedByAGuarantee) {
  expect_end("overflow_twice_without_reset", 0, "caught. caught. went on");
  expect_end("overflow_on_main_thread_with_guarantee", 0, "caught. caught. went on");
}

INSTANTIATE_TEST_SUITE_P(, Crash, ::testing::Values(L"crash_O0.exe", L"crash_O2.exe"),
                         [](auto const& test) {
                           return std::string(test.index == 0 ? "Unoptimised" : "Optimised");
                         });

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
