#include "velt/diagnostics/DebugSnapshot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <winternl.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "velt/diagnostics/Symbols.h"
#include "velt/locks/Event.h"

using testing::AllOf;
using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Key;
using testing::StartsWith;

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

[[gnu::noipa]] void wait_for_event(Agent& agent) {
  agent.ready.SetEvent();
  agent.go_on.Wait();
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
}

[[gnu::noipa]] void work_in_heap(Agent& agent) {
  agent.ready.SetEvent();
  while (!agent.stop) {
    HeapLock(GetProcessHeap());
    Sleep(1);
    HeapUnlock(GetProcessHeap());
  }
}

struct DebugSnapshot : testing::Test {
  void SetUp() override { ASSERT_TRUE(SymInitialize()); }
  void TearDown() override { SymCleanup(); }
};

long suspensions(HANDLE thread) {
  auto const count = SuspendThread(thread);
  ResumeThread(thread);
  return static_cast<long>(count);
}

}  // namespace

TEST_F(DebugSnapshot, ShowsWhereEachThreadIs) {
  Agent waiting(wait_for_event), computing(compute), stopped(compute), in_heap(work_in_heap);
  SuspendThread(stopped.handle());
  auto const stacks = blocks_of(TakeDebugSnapshot());
  EXPECT_GE(stacks.size(), 5u);
  EXPECT_THAT(stacks.at(waiting.id()),
              AllOf(StartsWith("\n-> ntdll!"), HasSubstr("diagnostics_tests!"),
                    HasSubstr("wait_for_event"), HasSubstr("[DebugSnapshot.cpp#")));
  EXPECT_THAT(stacks.at(computing.id()), HasSubstr("compute"));
  EXPECT_THAT(stacks.at(stopped.id()), HasSubstr("compute"));
  EXPECT_THAT(stacks.at(in_heap.id()), HasSubstr("work_in_heap"));
  EXPECT_THAT(stacks, Contains(Key(GetCurrentThreadId())));

  EXPECT_EQ(suspensions(waiting.handle()), 0);
  EXPECT_EQ(suspensions(computing.handle()), 0);
  EXPECT_EQ(suspensions(stopped.handle()), 1);
  ResumeThread(stopped.handle());
}

TEST_F(DebugSnapshot, ThreadThatHangsInTheLoaderIsShown) {
  TakeDebugSnapshot();
  Agent in_loader(sleep_in_loader);
  EXPECT_THAT(blocks_of(TakeDebugSnapshot()).at(in_loader.id()), HasSubstr("sleep_in_loader"));
}

TEST(DebugSnapshotWithoutEngine, ThreadThatHangsInTheLoaderLeavesNoSnapshot) {
  Agent in_loader(sleep_in_loader);
  EXPECT_EQ(TakeDebugSnapshot(), "");
}

TEST(DebugSnapshotWithoutEngine, EngineIsLoadedForTheSnapshotOnly) {
  EXPECT_NE(TakeDebugSnapshot(), "");
  EXPECT_FALSE(EnsureModuleSymbolsLoaded(1));
  EXPECT_EQ(GetModuleHandleW(L"dbghelp"), nullptr);
}

TEST_F(DebugSnapshot, EndsAt1024Threads) {
  std::vector<std::unique_ptr<Agent>> agents;
  for (int i = 0; i < 1100; ++i) agents.push_back(std::make_unique<Agent>(wait_for_event));
  auto t = GetTickCount64();
  EXPECT_EQ(blocks_of(TakeDebugSnapshot()).size(), 1024u);
  printf("%llu ms\n", GetTickCount64() - t);
  for (auto const& agent : agents) EXPECT_EQ(suspensions(agent->handle()), 0);
}

namespace {

[[gnu::noipa]] void allocate(Agent& agent) {
  agent.ready.SetEvent();
  for (unsigned i = 0; !agent.stop; ++i) std::string(i % 3000, 'x').shrink_to_fit();
}

[[gnu::noipa]] void load_libraries(Agent& agent) {
  agent.ready.SetEvent();
  while (!agent.stop)
    for (auto const name : {L"diagnostics_late_module.dll", L"shlwapi.dll", L"winspool.drv"})
      FreeLibrary(LoadLibraryW(name));
}

[[gnu::noipa]] void throw_exceptions(Agent& agent) {
  agent.ready.SetEvent();
  while (!agent.stop) try {
      throw std::runtime_error("thrown");
    } catch (std::exception const&) {
    }
}

[[gnu::noipa]] void open_files(Agent& agent) {
  agent.ready.SetEvent();
  while (!agent.stop) {
    CloseHandle(CreateFileW(L"diagnostics_late_module.dll", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    SetEnvironmentVariableW(L"VELT_TEST", L"x");
    char buffer[100];
    GetEnvironmentVariableA("PATH", buffer, 100);
    void* b = CoTaskMemAlloc(100);
    CoTaskMemFree(b);
  }
}
[[gnu::noipa]] void ask_time(Agent& agent) {
  agent.ready.SetEvent();
  while (!agent.stop) {
    auto t = time(0);
    localtime(&t);
    std::to_string(3.5);
  }
}

[[gnu::noipa]] void start_threads(Agent& agent) {
  agent.ready.SetEvent();
  while (!agent.stop) std::thread([] {}).join();
}

int wanted_snapshots() {
  char const* const wanted = std::getenv("VELT_SNAPSHOTS");
  return wanted ? std::atoi(wanted) : 5;
}

}  // namespace

TEST(DebugSnapshotWithoutEngine, ComesBackWhateverTheThreadsDo) {
  Agent agents[] = {Agent(allocate), Agent(allocate), Agent(load_libraries), Agent(load_libraries), Agent(throw_exceptions),
                    Agent(start_threads), Agent(open_files), Agent(ask_time)};
  for (int i = 0; i != wanted_snapshots(); ++i) {
    auto t = GetTickCount64();
    if (i % 3 == 0) SymInitialize();
    auto const stacks = blocks_of(TakeDebugSnapshot());
    if (i % 3 == 2) SymCleanup();
    EXPECT_GE(stacks.size(), 7u);
  printf("%llu ms\n", GetTickCount64() - t); fflush(stdout);
  }
}
