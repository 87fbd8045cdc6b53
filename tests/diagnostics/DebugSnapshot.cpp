#include "velt/diagnostics/DebugSnapshot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <utility>

#include "tests/support/Imports.h"
#include "tests/support/LoaderOwner.h"
#include "velt/symbols/Symbols.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

std::string block_of(DWORD thread, std::string const& snapshot) {
  auto const begin =
      std::min(snapshot.find("Thread " + std::to_string(thread) + ": ---"), snapshot.size());
  return snapshot.substr(begin, snapshot.find("\n\nThread ", begin) - begin);
}

std::atomic<int> begun;

[[gnu::noipa]] void compute(std::stop_token stop) {
  for (++begun; !stop.stop_requested();) YieldProcessor();
}

[[gnu::noipa]] void rest(std::stop_token stop) {
  for (++begun; !stop.stop_requested();) Sleep(1);
}

HANDLE handle_of(std::jthread& thread) {
  return reinterpret_cast<HANDLE>(pthread_gethandle(thread.native_handle()));
}

}  // namespace

TEST(DebugSnapshot, ShowsWhereEachThreadIsAndLetsItRunOn) {
  ASSERT_TRUE(SymInitialize());
  std::jthread computing(compute), resting(rest), stopped(rest);
  while (begun != 3) Sleep(1);
  SuspendThread(handle_of(stopped));
  auto const text = TakeDebugSnapshot();
  EXPECT_THAT(text, StartsWith("Snapshot taked on "));
  EXPECT_THAT(block_of(GetCurrentThreadId(), text), HasSubstr("TakeDebugSnapshot"));
  for (auto const& [thread, name] :
       {std::pair(&computing, "compute+"), {&resting, "rest+"}, {&stopped, "rest+"}}) {
    EXPECT_THAT(
        block_of(GetThreadId(handle_of(*thread)), text),
        AllOf(HasSubstr("---\n\n-> ntdll!"), HasSubstr(name), HasSubstr("[DebugSnapshot.cpp#")));
    EXPECT_EQ(ResumeThread(handle_of(*thread)), thread == &stopped ? 1u : 0u) << "suspensions";
  }
  SymCleanup();
}

TEST(DebugSnapshot, ShowsAThreadThatHangsInTheLoaderUnlessTheEngineIsMissing) {
  ASSERT_TRUE(SymInitialize());
  {
    velt_test::loader_owner const owner;
    EXPECT_THAT(TakeDebugSnapshot(), HasSubstr("sleep_in_loader+"));
  }
  SymCleanup();
  {
    // Seconds of patience pass ten times as fast.
    velt_test::Replacement const fast{VELT_CALL(GetTickCount64),
                                      [](auto platform) { return platform() * 10; }};
    velt_test::loader_owner const owner;
    EXPECT_EQ(TakeDebugSnapshot(), "");
  }
  EXPECT_NE(TakeDebugSnapshot(), "");
  EXPECT_FALSE(GetModuleHandleW(L"dbghelp")) << "it is loaded for the snapshot only";
}
