// The order in which a snapshot takes locks, stops threads and lets them go, above
// fakes of all of these.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <tlhelp32.h>

#include <set>
#include <string>
#include <vector>

#include "tests/diagnostics/Fakes.h"
#include "velt/diagnostics/DebugSnapshot.h"
#include "velt/symbols/EngineIsolationInternal.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using velt_test::fakes;

extern "C" {
extern decltype(&CloseHandle) __real___imp_CloseHandle;
extern decltype(&OpenThread) __real___imp_OpenThread;
}

namespace {

// What the platform tells of threads. Real numbers of threads and real handles are
// multiples of four; a handle here is the first number from its thread's on that is
// none.
struct World {
  World() { current = this; }
  ~World() { current = nullptr; }

  struct Entry {
    DWORD id, process = GetCurrentProcessId();
  };
  std::vector<Entry> threads;
  std::size_t next = 0;
  std::set<DWORD> ended, without_context;
  DWORD registers = 0;

  static inline World* current = nullptr;
};

char list_mark;
HANDLE const list = &list_mark;

HANDLE handle_of(DWORD id) { return ULongToHandle(id % 4 != 0 ? id : id + 1); }
bool is_fake(HANDLE handle) { return handle == list || HandleToULong(handle) % 4 != 0; }

void called(std::string const& call) { fakes().calls += " " + call; }
void called(char const* call, HANDLE thread) {
  bool const own = thread == handle_of(GetCurrentThreadId());
  called(call + (own ? " own" : " " + std::to_string(HandleToULong(thread))));
}

HANDLE list_threads(DWORD flags, DWORD process) {
  called(flags == 4 && process == GetCurrentProcessId() ? "list" : "another list");
  return list;
}

BOOL next_thread(THREADENTRY32* entry) {
  auto& world = *World::current;
  EXPECT_EQ(entry->dwSize, 28u);
  if (world.next == world.threads.size()) return FALSE;
  entry->th32ThreadID = world.threads[world.next].id;
  entry->th32OwnerProcessID = world.threads[world.next++].process;
  return TRUE;
}

HANDLE WINAPI open_thread(DWORD access, BOOL inherit, DWORD id) {
  if (access != 0x1F03FF || inherit) return __real___imp_OpenThread(access, inherit, id);
  return World::current->ended.contains(id) ? nullptr : handle_of(id);
}

DWORD WINAPI suspend(HANDLE thread) {
  called("stop", thread);
  return thread ? 0 : ~0u;
}

DWORD WINAPI resume(HANDLE thread) {
  called("resume", thread);
  return thread ? 1 : ~0u;
}

BOOL WINAPI context_of(HANDLE thread, CONTEXT* context) {
  World::current->registers = context->ContextFlags;
  return thread && !World::current->without_context.contains(HandleToULong(thread));
}

BOOL WINAPI close_handle(HANDLE handle);

class DebugSnapshotCalls : public testing::Test {
protected:
  DebugSnapshotCalls() { fakes().frames = {1, 2}; }

  void add(DWORD id) { world.threads.push_back({id}); }
  // Without the first line.
  std::string snapshot() {
    auto const text = TakeDebugSnapshot();
    return text.substr(std::min(text.find('\n'), text.size() - 1) + 1);
  }
  static std::string block(DWORD id) {
    return "Thread " + std::to_string(id) +
           ": -------------------------------------------------------\nstack of 1 2\n\n";
  }

  velt_test::Fresh fresh;
  World world;
};

}  // namespace

namespace velt::detail {

void load_all_symbols() { called("load"); }
engine_isolation::engine_isolation() noexcept { called("isolate"); }
engine_isolation::~engine_isolation() { called("~isolate"); }

}  // namespace velt::detail

extern "C" {
// These three are called without the word dllimport.
HANDLE WINAPI __wrap_CreateToolhelp32Snapshot(DWORD flags, DWORD process) {
  return list_threads(flags, process);
}
BOOL WINAPI __wrap_Thread32First(HANDLE, THREADENTRY32* entry) { return next_thread(entry); }
BOOL WINAPI __wrap_Thread32Next(HANDLE, THREADENTRY32* entry) { return next_thread(entry); }

decltype(&OpenThread) __wrap___imp_OpenThread = open_thread;
decltype(&SuspendThread) __wrap___imp_SuspendThread = suspend;
decltype(&ResumeThread) __wrap___imp_ResumeThread = resume;
decltype(&GetThreadContext) __wrap___imp_GetThreadContext = context_of;
decltype(&CloseHandle) __wrap___imp_CloseHandle = close_handle;
}

namespace {

BOOL WINAPI close_handle(HANDLE handle) {
  if (handle && !is_fake(handle)) return __real___imp_CloseHandle(handle);
  if (handle == list)
    called("~list");
  else
    called("close", handle);
  return TRUE;
}

}  // namespace

TEST_F(DebugSnapshotCalls, ThreadsAreStoppedUnderAllLocksAndResumedOneByOne) {
  world.threads = {{9, 1}, {10}, {11}, {13, 1}};  // the first and last of another process
  EXPECT_EQ(snapshot(), block(10) + block(11));
  EXPECT_EQ(fakes().calls,
            "symbols loader load PEB heap isolate list stop 10 stop 11 ~list resume 10 close 10 "
            "resume 11 close 11 ~isolate ~heap ~PEB ~loader ~symbols");
  EXPECT_EQ(fakes().holds, 0);
  EXPECT_EQ(world.registers, 0x10000Bu);
  EXPECT_EQ(fakes().walked_thread, ULongToHandle(11));
}

TEST_F(DebugSnapshotCalls, CallerAloneIsNotStopped) {
  add(GetCurrentThreadId());
  EXPECT_THAT(snapshot(), MatchesRegex("Thread " + std::to_string(GetCurrentThreadId()) +
                                       ": -*\nstack of .*\n\n"));
  EXPECT_EQ(fakes().calls,
            "symbols loader load PEB heap isolate list ~list close own ~isolate ~heap ~PEB "
            "~loader ~symbols");
}

TEST_F(DebugSnapshotCalls, GoesOnWithoutLoaderAndHeap) {
  fakes().loader_state = 2;
  fakes().heap_locks = false;
  velt_test::let_another_thread_take_heap_section();
  add(10);
  EXPECT_EQ(snapshot(), block(10));
  EXPECT_EQ(fakes().calls,
            "symbols loader load PEB heap isolate list stop 10 ~list resume 10 close 10 ~isolate "
            "~PEB ~symbols");
}

TEST_F(DebugSnapshotCalls, NothingIsStoppedWithoutTheEngine) {
  fakes().engine_is_there = false;
  add(10);
  EXPECT_EQ(TakeDebugSnapshot(), "");
  EXPECT_EQ(fakes().calls, "symbols ~symbols");
}

TEST_F(DebugSnapshotCalls, ThreadThatCannotBeReadMakesNoBlock) {
  for (DWORD const id : {9, 10, 11}) add(id);
  world.ended = {9};
  world.without_context = {10};
  EXPECT_EQ(snapshot(), block(11));
  EXPECT_THAT(fakes().calls, HasSubstr("stop 0 stop 10 stop 11 ~list resume 0 close 0 resume 10 "
                                       "close 10 resume 11 close 11"));
}

TEST_F(DebugSnapshotCalls, AfterTheFirst1024ThreadsNoneIsStopped) {
  std::string blocks;
  for (DWORD i = 0; i < 1100; ++i) {
    add(4 * i + 1);
    if (i < 1024) blocks += block(4 * i + 1);
  }
  EXPECT_TRUE(snapshot() == blocks);
  EXPECT_THAT(fakes().calls, HasSubstr(" stop 4093 ~list resume 1 "));
  EXPECT_THAT(fakes().calls, EndsWith(" close 4093 ~isolate ~heap ~PEB ~loader ~symbols"));
}
