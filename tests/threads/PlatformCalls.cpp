// Threads by the platform calls that they make. The sources are compiled into
// this program, so that every call can be written down, and made to fail.
#include "tests/support/PlatformCalls.h"

#include <gtest/gtest.h>
#include <process.h>
#include <windows.h>

#include <algorithm>
#include <functional>
#include <string>

#include "tests/support/OpenHandles.h"
#include "tests/support/SystemCode.h"
#include "tests/threads/Support.h"
#include "velt/diagnostics/StructuredException.h"
#include "velt/diagnostics/SymbolsInternal.h"
#include "velt/locks/Mutex.h"

using namespace velt_test;

VELT_WATCH(CloseHandle)
VELT_WATCH(GetThreadContext)
VELT_WATCH(QueueUserAPC)
VELT_WATCH(ResumeThread)
VELT_WATCH(SetThreadPriority)
VELT_WATCH(SetThreadToken)
VELT_WATCH(SleepEx)
VELT_WATCH(SuspendThread)
VELT_WATCH(TerminateThread)
VELT_WATCH(WaitForSingleObjectEx)
VELT_WATCH(_beginthreadex)

// The symbol engine, which has tests of its own.
static int engine_holds;

bool SymInitialize() { return ++engine_holds; }
void SymCleanup() { --engine_holds; }
TMutex& velt::detail::symbol_lock() {
  static TMutex lock;
  return lock;
}

unsigned int StackWalk(unsigned __int64* frames, _CONTEXT* context, void* thread,
                       unsigned int skip, unsigned int max) {
  EXPECT_TRUE(engine_holds == 1 && context->Rip && thread && skip == 0 && max == 64);
  EXPECT_EQ(context->ContextFlags, 0x10000Bu);
  EXPECT_EQ(std::count(frames, frames + max, 0u), max);
  frames[0] = 11;
  return 3;
}

std::string SymGetStackTrace(unsigned __int64 const* frames, unsigned int count) {
  EXPECT_EQ(engine_holds, 1);
  if (!count) return "";
  return "the stack of " + std::to_string(count) + " from " + std::to_string(frames[0]);
}

namespace {

unsigned int end_at_once(void*) { return 0; }

// Lets the threads of the tables end, after the last use.
TEvent& end_of_waiting = *new TEvent;
TEvent& body_began = *new TEvent(false, false);

// Not by a call that is watched.
void wait_for_the_end() {
  body_began.Set();
  ::WaitForSingleObject(end_of_waiting, INFINITE);
}

TThread ended_thread() {
  TThread thread(end_at_once, nullptr);
  ::WaitForSingleObject(thread, INFINITE);
  return thread;
}

Operation<TThread> const creations[] = {
    {"_beginthreadex(none, 70000, entry, buffer, 0, out)",
     [](TThread& t) { t.CreateThread(end_at_once, buffer, 70'000); }},
};

Operation<TThread> const operations[] = {
    {"SetThreadPriority(handle, -2)", [](TThread& t) { t.SetThreadPriority(-2); }},
    {"SetThreadPriority(handle, 1)", [](TThread& t) { t.DisableThreadPriorityBoost(true); }},
    {"SetThreadPriority(handle, 0)", [](TThread& t) { t.DisableThreadPriorityBoost(false); }},
    {"TerminateThread(handle, 9)", [](TThread& t) { t.TerminateThread(9); }},
    {"SetThreadToken(out, none)", [](TThread& t) { t.SetThreadToken(nullptr); }},
    {"SuspendThread(handle)", [](TThread& t) { t.SuspendThread(); }},
    {"ResumeThread(handle)", [](TThread& t) { t.ResumeThread(); }},
    {"QueueUserAPC(routine, handle, 5)",
     [](TThread& t) { t.QueueUserAPC([](unsigned __int64) {}, 5); }},
    {"SleepEx(3, 0)", [](TThread&) { TThread::Sleep(3, FALSE); }},
    {"SleepEx(3, 1)", [](TThread&) { TThread::Sleep(3, TRUE); }},
    {"SleepEx(1, 1)", [](TThread&) { TThread::Pause(); }},
    {"CloseHandle(handle)", [](TThread& t) { t.CloseHandle(); }},
};

// A TThreadClass whose body waits for the end; what else it does is the
// library's.
struct WaitingThread final : TThreadClass {
  void ThreadBody() override { wait_for_the_end(); }
  void start_into_body() {
    StartThread();
    ::WaitForSingleObject(body_began, INFINITE);
  }
  using TThreadClass::Idle;
  using TThreadClass::InterruptState;
  using TThreadClass::Running;
};

struct ThreadCalls : ::testing::Test {
  // The first throw opens handles for good.
  static void SetUpTestSuite() {
    Watch watch("SuspendThread");
    system_code([] { TThread(DoNotInitialize).SuspendThread(); });
  }
  ~ThreadCalls() override { end_of_waiting.Reset(); }

  void let_threads_end() { end_of_waiting.Set(); }
};

// The code of the action while the call fails, and the calls up to it.
std::string failing(char const* call, std::function<void()> const& action) {
  Watch watch(call);
  EXPECT_EQ(system_code(action), injected_code) << call;
  return watch.calls;
}

}  // namespace

TEST_F(ThreadCalls, FailedOperationsOfTThreadThrowAndKeepTheHandle) {
  EXPECT_EQ(failing("_beginthreadex", [] { TThread(end_at_once, buffer); }),
            "_beginthreadex(none, 0, entry, buffer, 0, out)");
  expect_failures(creations, nothing<TThread>, after_failure::minus_one);
  expect_failures(operations, ended_thread, after_failure::unchanged);
}

TEST_F(ThreadCalls, StopWaitsAndKillsWhenTheTimeIsUp) {
  Watch watch;
  WaitingThread thread;
  thread.StopThread(5);
  thread.AttachHandle(nullptr);
  thread.StopThread(5);
  EXPECT_EQ(watch.calls, "");
  EXPECT_EQ(failing("_beginthreadex", [&] { thread.StartThread(); }),
            "_beginthreadex(none, 0, entry, handle, 0, out)");
  thread.start_into_body();
  std::string const wait = "WaitForSingleObjectEx(handle, 5, 1)";
  auto const stop = [&] { thread.StopThread(5); };
  EXPECT_EQ(failing("WaitForSingleObjectEx", stop), wait);
  EXPECT_EQ(failing("TerminateThread", stop), wait + "TerminateThread(handle, 0)");
  stop();
  EXPECT_TRUE(signaled_within(thread, patience));
}

TEST_F(ThreadCalls, InterruptionWaitsQueuesAndStops) {
  WaitingThread thread;
  {
    Watch watch;
    thread.InterruptThread(3, 4);
    EXPECT_EQ(watch.calls, "WaitForSingleObjectEx(process, 3, 1)");
  }
  thread.InterruptState = WaitingThread::Idle;
  thread.start_into_body();
  auto const address = reinterpret_cast<std::uintptr_t>(static_cast<TThreadClass*>(&thread));
  std::string const wait = "WaitForSingleObjectEx(handle, 3, 1)",
                    both = wait + "QueueUserAPC(routine, handle, " + std::to_string(address) + ")";
  auto const interrupt = [&] { thread.InterruptThread(3, 4); };
  EXPECT_EQ(failing("WaitForSingleObjectEx", interrupt), wait);
  EXPECT_EQ(failing("QueueUserAPC", interrupt), both);
  EXPECT_EQ(failing("TerminateThread", interrupt),
            both + "WaitForSingleObjectEx(handle, 4, 1)TerminateThread(handle, 0)");
  EXPECT_EQ(thread.InterruptState, WaitingThread::Running);
  let_threads_end();
}

TEST_F(ThreadCalls, DestructorOfTThreadClassWaitsASecondAndCloses) {
  let_threads_end();
  Watch watch;
  {
    WaitingThread never_started, thread;
    thread.start_into_body();
    watch.calls.clear();
  }
  EXPECT_EQ(watch.calls, "WaitForSingleObjectEx(handle, 1000, 1)CloseHandle(handle)");

  auto const unwind = [&] {
    WaitingThread unwound;
    unwound.start_into_body();
    watch.calls.clear();
    throw 1;
  };
  EXPECT_THROW(unwind(), int);
  EXPECT_EQ(watch.calls, "WaitForSingleObjectEx(handle, 1000, 0)CloseHandle(handle)")
      << "an interruption could not leave it then";
}

TEST_F(ThreadCalls, FailureInTheDestructorOfTThreadClassComesOutAndLosesNoHandle) {
  std::string const wait = "WaitForSingleObjectEx(handle, 1000, 1)", close = "CloseHandle(handle)";
  struct {
    char const* call;
    std::string calls;
  } const rows[] = {{"WaitForSingleObjectEx", wait + close},
                    {"TerminateThread", wait + "TerminateThread(handle, 0)" + close}};
  for (auto const& [call, calls] : rows) {
    end_of_waiting.Reset();
    long const before = open_handles();
    auto* thread = new WaitingThread;
    thread->start_into_body();
    THandle const other = *thread;
    EXPECT_EQ(failing(call, [&] { delete thread; }), calls);
    let_threads_end();
    ::WaitForSingleObject(other, INFINITE);
    EXPECT_TRUE(open_handles_fall_to(before + 1)) << call;
  }
  // Both at once would end the process.
  auto* thread = new WaitingThread;
  thread->AttachHandle(buffer);
  EXPECT_EQ(system_code([&] { delete thread; }), ERROR_INVALID_HANDLE);
}

TEST_F(ThreadCalls, StackIsReadFromASuspendedThreadThatIsResumed) {
  WaitingThread thread;
  thread.start_into_body();
  auto const stack = [&](char const* failing_call) {
    Watch watch(failing_call);
    return thread.GetCurrentStack() + "|" + watch.calls;
  };
  std::string const all = "SuspendThread(handle)GetThreadContext(handle, out)ResumeThread(handle)";
  EXPECT_EQ(stack(""), "the stack of 3 from 11|" + all);
  EXPECT_EQ(stack("SuspendThread"), "|SuspendThread(handle)");
  EXPECT_EQ(stack("GetThreadContext"), "|" + all);
  EXPECT_EQ(stack("ResumeThread"), "the stack of 3 from 11|" + all);
  __real___imp_ResumeThread(thread);
  EXPECT_EQ(engine_holds, 0);
  let_threads_end();
}
