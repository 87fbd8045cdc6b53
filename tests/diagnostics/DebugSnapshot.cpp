#include "velt/diagnostics/DebugSnapshot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Imports.h"
#include "tests/support/LoaderOwner.h"
#include "velt/symbols/Symbols.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

// Of a thread; empty if it is missing.
std::string stack_in(std::string const& snapshot, DWORD thread) {
  auto const head = "Thread " + std::to_string(thread) + ": " + std::string(55, '-') + "\n";
  auto const found = snapshot.find(head);
  if (found == snapshot.npos) return {};
  auto const begin = found + head.size();
  return snapshot.substr(begin, snapshot.find("\n\n", begin + 1) - begin);
}

std::atomic<int> begun;

[[gnu::noipa]] void compute(std::stop_token stop) {
  for (++begun; !stop.stop_requested();) YieldProcessor();
}

[[gnu::noipa]] void use_heap(std::stop_token stop) {
  for (++begun; !stop.stop_requested();) {
    HeapLock(GetProcessHeap());
    Sleep(1);
    HeapUnlock(GetProcessHeap());
  }
}

[[gnu::noipa]] void rest(std::stop_token stop) {
  for (++begun; !stop.stop_requested();) Sleep(1);
}

struct {
  void (*body)(std::stop_token);
  char const* name;
} const works[] = {{compute, "compute+"}, {use_heap, "use_heap+"}, {rest, "rest+"}};
auto work_of(std::size_t thread) { return works[std::min<std::size_t>(thread, 2)]; }

HANDLE handle_of(std::jthread& thread) {
  return reinterpret_cast<HANDLE>(pthread_gethandle(thread.native_handle()));
}

}  // namespace

TEST(DebugSnapshot, ShowsWhereEachThreadIsAndLetsItRunOn) {
  ASSERT_TRUE(SymInitialize());
  std::vector<std::jthread> threads;
  while (threads.size() != 30) threads.emplace_back(work_of(threads.size()).body);
  while (begun != 30) Sleep(1);
  SuspendThread(handle_of(threads[2]));
  auto const text = TakeDebugSnapshot();
  EXPECT_THAT(text, StartsWith("Snapshot taked on "));
  EXPECT_THAT(stack_in(text, GetCurrentThreadId()), HasSubstr("TakeDebugSnapshot"));
  for (std::size_t i = 0; i != threads.size(); ++i) {
    auto const handle = handle_of(threads[i]);
    EXPECT_THAT(stack_in(text, GetThreadId(handle)),
                AllOf(StartsWith("\n-> ntdll!"), HasSubstr(work_of(i).name),
                      HasSubstr("[DebugSnapshot.cpp#")));
    EXPECT_EQ(ResumeThread(handle), i == 2 ? 1u : 0u) << "suspensions";
  }
  SymCleanup();
}

TEST(DebugSnapshot, ShowsAThreadThatHangsInTheLoaderUnlessTheEngineIsMissing) {
  // Seconds of patience pass ten times as fast.
  velt_test::Replacement const fast{VELT_CALL(GetTickCount64),
                                    [](auto platform) { return platform() * 10; }};
  ASSERT_TRUE(SymInitialize());
  {
    velt_test::loader_owner const owner;
    EXPECT_THAT(TakeDebugSnapshot(), HasSubstr("sleep_in_loader+"));
  }
  SymCleanup();
  {
    velt_test::loader_owner const owner;
    EXPECT_EQ(TakeDebugSnapshot(), "");
  }
  EXPECT_NE(TakeDebugSnapshot(), "");
  EXPECT_FALSE(GetModuleHandleW(L"dbghelp")) << "it is loaded for the snapshot only";
}
