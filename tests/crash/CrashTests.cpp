// How processes end that fail: each way is run in a process of its own.
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <numeric>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"

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
  expect_end("fault_without_translator", 0xC0000005, "unhandled c0000005");
  expect_end("fault_without_try", 0xC0000005, "unhandled c0000005");
  expect_end("break_without_try", 0x80000003, "unhandled 80000003");
}

TEST_P(Crash, ByAFaultThatMustNotPassIsATermination) {
  for (char const* way : {"fault_under_other_handlers", "fault_in_noexcept_with_try"})
    expect_end(way, 3, "terminated by Access Violation (read from 0x10)");
  expect_end("new_throw_in_noexcept", 3, "terminated by something else");
}

TEST_P(Crash, IsPreventedWhereThereIsNoCallSite) {
  for (char const* way : {"fault_below_noexcept", "fault_in_noexcept", "fault_in_destructor",
                          "fault_in_unwinding", "fault_without_the_option"})
    expect_end(way, 0, "caught");
}

// Wine tells nobody of the second one.
TEST_P(Crash, ByAnOverflowIsPreventedByAResetAndAGuarantee) {
  expect_end("overflow_twice_without_reset", 0, "caught. ");
  expect_end("overflow_on_main_thread_with_guarantee", 0, "caught. caught. went on");
}

INSTANTIATE_TEST_SUITE_P(, Crash, ::testing::Values(L"crash_O0.exe", L"crash_O2.exe"),
                         [](auto const& test) {
                           return std::string(test.index == 0 ? "Unoptimised" : "Optimised");
                         });

TEST(Unloading, LeavesNothingBehindThatAThrowWouldMeet) {
  velt_test::scratch_folder const folder;
  auto const process = velt_test::run_program(L"unload.exe", {}, folder.path());
  EXPECT_EQ(process.status, 0u);
  EXPECT_EQ(process.output, "loaded unloaded loaded unloaded loaded unloaded ");
}

namespace {

velt_test::finished_process load(std::vector<std::wstring> const& failure = {}) {
  return velt_test::run_program(L"load_order.exe", failure,
                                std::filesystem::temp_directory_path());
}

// What the library asks of the platform when it is loaded, in the order in which
// its objects are built, and when it is unloaded.
constexpr char const* steps[] = {
    "mutex: 1\n",  // of symbols
    "mutex: 2\nmutex: 3\nmutex: 4\nQueryPerformanceFrequency\nGetProcessHeap\n",
    "HeapSetInformation\nGetProcessHeap\nHeapSetInformation 0 2\nHeapSetInformation 0 2\n",
    "_set_sbh_threshold\n",
    "section: 5\n",  // of overflows
    "event: 6\n"     // of dumps
    "RtlAcquirePebLock\nRtlTryAcquirePebLock\nRtlReleasePebLock\n"
    "LdrLockLoaderLock\nLdrUnlockLoaderLock\n"
    "RtlLockHeap\nRtlUnlockHeap\nRtlValidateHeap\nGetProcessHeap\n"
    "TlsAlloc\nTlsAlloc\n",
    "TlsAlloc\n"  // of throws
    "AddVectoredExceptionHandler\nRemoveVectoredExceptionHandler\n"
    "SetThreadStackGuarantee\n",
    "-\n"
    "RemoveVectoredExceptionHandler\n"
    "TlsFree\nTlsFree\nTlsFree\n"
    "closed: 6\ndeleted: 5\nclosed: 4\nclosed: 3\nclosed: 2\nclosed: 1\n",
};

std::string first_steps(std::size_t count) {
  return std::accumulate(steps, steps + count, std::string());
}

}  // namespace

TEST(Loading, BuildsInOrderAndUnloadingDestroysInTheReverseOrder) {
  auto const process = load();
  EXPECT_EQ(process.status, 0u);
  EXPECT_EQ(process.output, first_steps(std::size(steps)));
}

TEST(Loading, FailsByAnExceptionThatTheLibraryDoesNotCatch) {
  struct {
    std::vector<std::wstring> failure;
    std::size_t steps_before;
  } const rows[] = {{{L"CreateMutexW", L"1"}, 0}, {{L"CreateEventW", L"1"}, 5}, {{L"TlsAlloc", L"3"}, 6}};
  for (auto const& [failure, steps_before] : rows) {
    auto const process = load(failure);
    EXPECT_EQ(process.status, 7u);
    EXPECT_EQ(process.output, first_steps(steps_before) + "TlsAlloc\nthrows\n");
  }
}

TEST(Loading, AsksForLowFragmentationOnNewSystemsOnly) {
  for (auto const version : {L"40", L"50", L"51", L"60"}) {
    auto const process = load({L"GetVersionExW", version});
    EXPECT_EQ(process.output.find(steps[2]) != std::string::npos,
              std::wstring(version) > L"50");
    EXPECT_NE(process.output.find(steps[3]), std::string::npos);
  }
}
