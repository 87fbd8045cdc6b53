#include "velt/diagnostics/DebugSnapshot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>
#include <winternl.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/OpenHandles.h"
#include "velt/locks/Event.h"
#include "velt/symbols/Symbols.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using velt_test::open_handles;

extern "C" {
NTSTATUS NTAPI LdrLockLoaderLock(ULONG flags, ULONG* state, ULONG_PTR* cookie);
NTSTATUS NTAPI LdrUnlockLoaderLock(ULONG flags, ULONG_PTR cookie);
}

namespace {

using blocks = std::map<DWORD, std::string>;

// The stacks by thread; the text is of nothing but blocks behind its first line.
blocks blocks_of(std::string const& snapshot) {
  static std::regex const first_line(
      "Snapshot taked on [A-Z][a-z]{2} [A-Z][a-z]{2} \\d\\d \\d\\d:\\d\\d:\\d\\d \\d{4}\n");
  static std::regex const block("Thread (\\d+): -{55}\n((?:\n-> .*)*)\n\n");
  blocks result;
  std::smatch match;
  auto rest = snapshot.begin();
  auto const next = [&](std::regex const& form) {
    bool const found = std::regex_search(rest, snapshot.end(), match, form,
                                         std::regex_constants::match_continuous);
    if (found) rest = match[0].second;
    return found;
  };
  EXPECT_TRUE(next(first_line)) << snapshot.substr(0, 100);
  while (next(block)) result[std::stoul(match[1])] = match[2];
  EXPECT_EQ(std::string(rest, snapshot.end()), "");
  return result;
}

// Ends its thread at the end of its scope, by the event that it hands it.
class Agent {
public:
  using Work = void (*)(Agent&);
  explicit Agent(Work work) : thread([this, work] { work(*this); }) { ready.Wait(); }
  Agent(Agent const&) = delete;
  ~Agent() {
    stop = true;
    go_on.SetEvent();
    thread.join();
  }

  HANDLE handle() { return reinterpret_cast<HANDLE>(pthread_gethandle(thread.native_handle())); }
  DWORD id() { return GetThreadId(handle()); }

  struct Signal : TEvent {
    Signal() : TEvent(true, false) {}
    void Wait() { WaitForSingleObject(INFINITE, false); }
  };
  Signal ready, go_on;
  std::atomic<bool> stop = false;

private:
  std::thread thread;
};

// Behind the last call of these something is left to do, so that they have a frame.

[[gnu::noipa]] void wait_for_event(Agent& agent) {
  agent.ready.SetEvent();
  agent.go_on.Wait();
  asm volatile("");  // so that this is no jump
}

[[gnu::noipa]] void compute(Agent& agent) {
  agent.ready.SetEvent();
  while (!agent.stop) YieldProcessor();
}

[[gnu::noipa]] void sleep_in_loader(Agent& agent) {
  ULONG_PTR cookie;
  LdrLockLoaderLock(0, nullptr, &cookie);
  agent.ready.SetEvent();
  agent.go_on.Wait();
  LdrUnlockLoaderLock(0, cookie);
  asm volatile("");
}

[[gnu::noipa]] void work_in_heap(Agent& agent) {
  agent.ready.SetEvent();
  while (!agent.stop) {
    HeapLock(GetProcessHeap());
    Sleep(1);
    HeapUnlock(GetProcessHeap());
  }
  asm volatile("");
}

// Loading the engine and the symbols of all modules takes seconds.
struct DebugSnapshot : testing::Test {
  static void SetUpTestSuite() {
    ASSERT_TRUE(SymInitialize());
    TakeDebugSnapshot();
  }
  static void TearDownTestSuite() { SymCleanup(); }
};

long suspensions(HANDLE thread) {
  auto const count = SuspendThread(thread);
  ResumeThread(thread);
  return static_cast<long>(count);
}

[[gnu::noipa]] std::string call_for_snapshot() {
  auto const text = TakeDebugSnapshot();
  asm volatile("");
  return text;
}

}  // namespace

TEST_F(DebugSnapshot, ShowsWhereEachThreadIs) {
  Agent waiting(wait_for_event), computing(compute), stopped(compute), in_heap(work_in_heap);
  SuspendThread(stopped.handle());
  auto const stacks = blocks_of(call_for_snapshot());
  EXPECT_GE(stacks.size(), 5u);
  EXPECT_THAT(stacks.at(waiting.id()),
              AllOf(StartsWith("\n-> ntdll!"), HasSubstr("\n-> diagnostics_tests!"),
                    HasSubstr("wait_for_event+"), HasSubstr("[DebugSnapshot.cpp#")));
  EXPECT_THAT(stacks.at(computing.id()), HasSubstr("compute+"));
  EXPECT_THAT(stacks.at(stopped.id()), HasSubstr("compute+"));
  EXPECT_THAT(stacks.at(in_heap.id()), HasSubstr("work_in_heap+"));
  EXPECT_THAT(stacks.at(GetCurrentThreadId()), HasSubstr("call_for_snapshot"));

  EXPECT_EQ(suspensions(waiting.handle()), 0);
  EXPECT_EQ(suspensions(computing.handle()), 0);
  EXPECT_EQ(suspensions(stopped.handle()), 1);
  ResumeThread(stopped.handle());
}

TEST_F(DebugSnapshot, ThreadThatHangsInTheLoaderIsShown) {
  Agent in_loader(sleep_in_loader);
  EXPECT_THAT(blocks_of(TakeDebugSnapshot()).at(in_loader.id()), HasSubstr("sleep_in_loader+"));
}

// VELT_THREADS=1100 in the environment makes more threads than are shown.
TEST_F(DebugSnapshot, ManyThreadsAreShownAndRunOn) {
  char const* const wanted = std::getenv("VELT_THREADS");
  std::size_t const count = wanted ? std::strtoul(wanted, nullptr, 10) : 30;
  std::vector<std::unique_ptr<Agent>> agents;
  while (agents.size() != count) agents.push_back(std::make_unique<Agent>(wait_for_event));
  auto const stacks = blocks_of(TakeDebugSnapshot());
  EXPECT_GE(stacks.size(), std::min<std::size_t>(count + 1, 1024));
  EXPECT_LE(stacks.size(), 1024u);
  for (auto const& agent : agents) {
    EXPECT_EQ(suspensions(agent->handle()), 0);
    EXPECT_TRUE(stacks.size() == 1024 || stacks.contains(agent->id()));
  }
}

TEST_F(DebugSnapshot, LosesNoHandle) {
  auto const handles = open_handles();
  TakeDebugSnapshot();
  EXPECT_TRUE(velt_test::open_handles_fall_to(handles));
}

TEST_F(DebugSnapshot, TwoThreadsTakeTurns) {
  std::string texts[2];
  {
    std::jthread const first([&] { texts[0] = TakeDebugSnapshot(); });
    std::jthread const second([&] { texts[1] = TakeDebugSnapshot(); });
  }
  for (auto const& text : texts) EXPECT_GE(blocks_of(text).size(), 2u);
}

TEST(DebugSnapshotWithoutEngine, EngineIsLoadedForTheSnapshotOnly) {
  EXPECT_NE(TakeDebugSnapshot(), "");
  EXPECT_EQ(GetModuleHandleW(L"dbghelp"), nullptr);
}

TEST(DebugSnapshotWithoutEngine, ReadsNoSymbolsOfAModuleThatIsOnNoStack) {
  ASSERT_TRUE(SymInitialize());
  TakeDebugSnapshot();
  auto const ask = reinterpret_cast<decltype(&SymGetModuleInfo64)>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"dbghelp"), "SymGetModuleInfo64")));
  auto const state_of = [&](wchar_t const* name) {
    IMAGEHLP_MODULE64 module{};
    module.SizeOfStruct = 1672;
    auto const base = reinterpret_cast<std::uintptr_t>(GetModuleHandleW(name));
    EXPECT_TRUE(ask(GetCurrentProcess(), base, &module));
    return module.SymType;
  };
  EXPECT_EQ(state_of(L"oleaut32"), SymDeferred);
  EXPECT_NE(state_of(L"ntdll"), SymDeferred);
  SymCleanup();
}

TEST(DebugSnapshotWithoutEngine, IsEmptyWhileTheLoaderHangs) {
  Agent in_loader(sleep_in_loader);
  EXPECT_EQ(TakeDebugSnapshot(), "");
}
