#include "velt/diagnostics/DebugSnapshot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <winternl.h>

#include <map>
#include <regex>
#include <string>
#include <thread>

#include "tests/support/OpenHandles.h"
#include "velt/diagnostics/Symbols.h"
#include "velt/locks/Event.h"

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

private:
  std::thread thread;
};

// Behind the last call of these something is left to do, so that they have a frame.

[[gnu::noipa]] void wait_for_event(Agent& agent) {
  agent.ready.SetEvent();
  agent.go_on.Wait();
  asm volatile("");  // so that this is no jump
}

[[gnu::noipa]] void sleep_in_loader(Agent& agent) {
  ULONG_PTR cookie;
  LdrLockLoaderLock(0, nullptr, &cookie);
  agent.ready.SetEvent();
  agent.go_on.Wait();
  LdrUnlockLoaderLock(0, cookie);
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

}  // namespace

TEST_F(DebugSnapshot, ShowsWhereEachThreadIsAndLosesNoHandle) {
  Agent waiting(wait_for_event), in_loader(sleep_in_loader);
  auto const handles = open_handles();
  auto const stacks = blocks_of(TakeDebugSnapshot());
  EXPECT_TRUE(velt_test::open_handles_fall_to(handles));
  EXPECT_THAT(stacks.at(waiting.id()),
              AllOf(StartsWith("\n-> ntdll!"), HasSubstr("\n-> diagnostics_tests!"),
                    HasSubstr("wait_for_event+"), HasSubstr("[DebugSnapshot.cpp#")));
  EXPECT_THAT(stacks.at(in_loader.id()), HasSubstr("sleep_in_loader+"));
  EXPECT_THAT(stacks.at(GetCurrentThreadId()), HasSubstr("TestBody"));
}

TEST(DebugSnapshotWithoutEngine, IsEmptyWhileTheLoaderHangs) {
  {
    Agent in_loader(sleep_in_loader);
    EXPECT_EQ(TakeDebugSnapshot(), "");
  }
  EXPECT_EQ(GetModuleHandleW(L"dbghelp"), nullptr);
}
