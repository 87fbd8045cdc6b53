// How processes end that fail: each way is run in a process of its own.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"

namespace {

struct Way {
  char const* name;
  unsigned long status;
  char const* output;
};

class Crash : public ::testing::TestWithParam<wchar_t const*> {
protected:
  void expect_end(Way const& way) const {
    velt_test::scratch_folder const folder;
    std::string const name = way.name;
    auto const process =
        velt_test::run_program(GetParam(), {std::wstring(name.begin(), name.end())}, folder.path());
    EXPECT_EQ(process.status, way.status) << way.name;
    EXPECT_EQ(process.output, way.output) << way.name;
    EXPECT_TRUE(std::filesystem::is_empty(folder.path())) << way.name;
  }
};

}  // namespace

TEST_P(Crash, ByAFaultThatNobodyTranslatesHasItsCode) {
  for (Way const& way : {Way{"fault_without_translator", 0xC0000005, "unhandled c0000005"},
                         Way{"fault_without_try", 0xC0000005, "unhandled c0000005"},
                         Way{"break_without_try", 0x80000003, "unhandled 80000003"}})
    expect_end(way);
}

TEST_P(Crash, ByAFaultThatMustNotPassIsATermination) {
  constexpr char output[] = "terminated by Access Violation (read from 0x10)";
  for (char const* way : {"fault_under_other_handlers", "fault_below_noexcept", "fault_in_noexcept",
                          "fault_in_destructor", "fault_in_unwinding", "fault_without_the_option"})
    expect_end({way, 3, output});
}

// Wine tells nobody.
TEST_P(Crash, ByASecondOverflowWithoutAResetIsSilent) {
  expect_end({"overflow_twice_without_reset", 0, "caught. "});
}

TEST_P(Crash, ByAnOverflowOnTheMainThreadIsPreventedByAGuarantee) {
  expect_end({"overflow_on_main_thread_with_guarantee", 0, "caught. caught. went on"});
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
// its objects are built.
constexpr char of_symbols[] = "mutex: 1\n";
constexpr char of_streams_to_heaps[] =
    "mutex: 2\nmutex: 3\nmutex: 4\n"
    "QueryPerformanceFrequency\n"
    "GetProcessHeap\n";
constexpr char of_fragmentation[] =
    "HeapSetInformation\nGetProcessHeap\nHeapSetInformation 0 2\nHeapSetInformation 0 2\n";
constexpr char of_small_blocks[] = "_set_sbh_threshold\n";
constexpr char of_overflows[] = "section: 5\n";
constexpr char of_dumps[] =
    "event: 6\n"
    "RtlAcquirePebLock\nRtlTryAcquirePebLock\nRtlReleasePebLock\n"
    "LdrLockLoaderLock\nLdrUnlockLoaderLock\n"
    "RtlLockHeap\nRtlUnlockHeap\nRtlValidateHeap\n"
    "GetProcessHeap\n"
    "TlsAlloc\nTlsAlloc\n";
constexpr char of_throws_and_threads[] =
    "TlsAlloc\n"
    "AddVectoredExceptionHandler\nRemoveVectoredExceptionHandler\n"
    "SetThreadStackGuarantee\n";
constexpr char back_down[] =
    "-\n"
    "RemoveVectoredExceptionHandler\n"
    "TlsFree\nTlsFree\nTlsFree\n"
    "closed: 6\ndeleted: 5\nclosed: 4\nclosed: 3\nclosed: 2\nclosed: 1\n";

std::string up_to(char const* last) {
  std::string text;
  for (char const* step : {of_symbols, of_streams_to_heaps, of_fragmentation, of_small_blocks,
                           of_overflows, of_dumps, of_throws_and_threads, back_down}) {
    text += step;
    if (step == last) return text;
  }
  return text;
}

}  // namespace

TEST(Loading, BuildsInOrderAndUnloadingDestroysInTheReverseOrder) {
  auto const process = load();
  EXPECT_EQ(process.status, 0u);
  EXPECT_EQ(process.output, up_to(back_down));
}

// The first value of all takes a slot of the platform's.
TEST(Loading, FailsByAnExceptionThatTheLibraryDoesNotCatch) {
  auto const failed = [](std::string const& calls) { return calls + "TlsAlloc\nthrows\n"; };
  auto const mutex = load({L"CreateMutexW", L"1"}), event = load({L"CreateEventW", L"1"}),
             slot = load({L"TlsAlloc", L"3"});
  for (auto const* process : {&mutex, &event, &slot}) EXPECT_EQ(process->status, 7u);
  EXPECT_EQ(mutex.output, failed(""));
  EXPECT_EQ(event.output, failed(up_to(of_overflows)));
  EXPECT_EQ(slot.output, failed(up_to(of_dumps)));
}

TEST(Loading, AsksForLowFragmentationOnNewSystemsOnly) {
  for (auto const version : {L"40", L"50", L"51", L"60"}) {
    auto const process = load({L"GetVersionExW", version});
    EXPECT_EQ(process.output.find(of_fragmentation) != std::string::npos,
              std::wstring(version) > L"50");
    EXPECT_NE(process.output.find(of_small_blocks), std::string::npos);
  }
}
