// Threads by the platform calls that they make. The sources are compiled into
// this program, so that every call can be written down, and made to fail.
#include "tests/support/PlatformCalls.h"

#include <gtest/gtest.h>
#include <process.h>
#include <windows.h>

#include <functional>
#include <string>

#include "tests/support/OpenHandles.h"
#include "tests/support/Expect.h"
#include "tests/threads/Support.h"
#include "velt/diagnostics/StoppedWalkInternal.h"
#include "velt/faults/StructuredException.h"
#include "velt/locks/Mutex.h"

using namespace velt_test;

VELT_WATCH(CloseHandle)
VELT_WATCH(QueueUserAPC)
VELT_WATCH(ResumeThread)
VELT_WATCH(SetThreadPriority)
VELT_WATCH(SetThreadToken)
VELT_WATCH(SleepEx)
VELT_WATCH(SuspendThread)
VELT_WATCH(TerminateThread)
VELT_WATCH(WaitForSingleObjectEx)
VELT_WATCH(_beginthreadex)

namespace {

// What the entry of a thread does, in its order.
std::string entry_steps;

BOOL WINAPI note_guarantee(ULONG* bytes) {
  entry_steps += "guarantee(" + std::to_string(*bytes) + ")";
  return FALSE;
}

}  // namespace

// The library asks for the guarantee once, when it is loaded.
extern "C" {
extern decltype(&GetProcAddress) __real___imp_GetProcAddress;
static FARPROC WINAPI look_up(HMODULE module, char const* name) {
  bool const is_guarantee = std::string_view(name) == "SetThreadStackGuarantee" &&
                            module == GetModuleHandleW(L"kernel32");
  return is_guarantee ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(note_guarantee))
                      : __real___imp_GetProcAddress(module, name);
}
extern decltype(&GetProcAddress) __wrap___imp_GetProcAddress;
decltype(&GetProcAddress) __wrap___imp_GetProcAddress = look_up;

static int note_reset() {
  entry_steps += "reset";
  return 1;
}
extern decltype(&_resetstkoflw) __wrap___imp__resetstkoflw;
decltype(&_resetstkoflw) __wrap___imp__resetstkoflw = note_reset;

// The constructor of redirect_structured_exceptions.
void __wrap__ZN30redirect_structured_exceptionsC1Ev(void*) { entry_steps += "redirect"; }
}

// For the virtual function alone, which has tests of its own.
std::string velt::detail::text_of_running_thread(void*) { return {}; }

namespace {

unsigned int end_at_once(void*) { return 0; }

// Lets the threads of the tables end, after the last use.
TEvent& end_of_waiting() {
  static TEvent& event = *new TEvent;
  return event;
}
TEvent& body_began() {
  static TEvent& event = *new TEvent(false, false);
  return event;
}

// Not by a call that is watched.
void wait_for_the_end() {
  body_began().Set();
  ::WaitForSingleObject(end_of_waiting(), INFINITE);
}

// It waits already: killed while it begins, a thread would keep the loader's lock.
TThread waiting_thread() {
  TThread thread([](void*) { return wait_for_the_end(), 0u; }, nullptr);
  ::WaitForSingleObject(body_began(), INFINITE);
  return thread;
}

TThread ended_thread() {
  TThread thread(end_at_once, nullptr);
  ::WaitForSingleObject(thread, INFINITE);
  return thread;
}

Construction const starts[] = {
    {"_beginthreadex(none, 0, entry, buffer, 0, out)", [] { TThread(end_at_once, buffer); }},
};

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
    {"SuspendThread(handle)",
     [](TThread& t) {
       t.SuspendThread();
       __real___imp_ResumeThread(t);
     }},
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
    ::WaitForSingleObject(body_began(), INFINITE);
  }
  using TThreadClass::Idle;
  using TThreadClass::InterruptRequested;
  using TThreadClass::InterruptState;
  using TThreadClass::Running;
};

struct ThreadCalls : ::testing::Test {
  // The first throw opens handles for good.
  static void SetUpTestSuite() {
    Watch watch("SuspendThread");
    system_code([] { TThread(DoNotInitialize).SuspendThread(); });
  }
  ~ThreadCalls() override { end_of_waiting().Reset(); }

  void let_threads_end() { end_of_waiting().Set(); }

  std::string calls_of(WaitingThread* thread) {
    Watch watch;
    delete thread;
    return watch.calls;
  }
};

// The call that is to fail, and its code where that comes out.
int code_of_failing(char const* call, std::function<void()> const& action, std::string& calls) {
  Watch watch(call);
  int const code = system_code(action);
  calls = watch.calls;
  return code;
}

}  // namespace

TEST_F(ThreadCalls, FailedOperationsOfTThreadThrowAndKeepTheHandle) {
  for (auto const& [call, run] : starts) {
    Watch watch(call_name(call));
    EXPECT_EQ(system_code(run), injected_code);
    EXPECT_EQ(watch.calls, call);
  }
  expect_failures(creations, nothing<TThread>, after_failure::minus_one);
  expect_failures(operations, ended_thread, after_failure::unchanged);
}

TEST_F(ThreadCalls, DestructorOfTThreadClosesWhatIsHeldAndThrowsIfItCannot) {
  let_threads_end();
  auto* thread = new TThread(waiting_thread());
  THandle owner;
  owner.AttachHandle(*thread);
  Watch watch("CloseHandle");
  EXPECT_EQ(system_code([&] { delete thread; }), injected_code);
  EXPECT_EQ(watch.calls, "CloseHandle(handle)");
  watch.failing.clear();
  watch.calls.clear();
  {
    TThread none_held(DoNotInitialize), null_held(DoNotInitialize);
    null_held.AttachHandle(nullptr);
  }
  EXPECT_EQ(watch.calls, "");
}

TEST_F(ThreadCalls, EntryArmsFaultsBeforeTheGuaranteeAndThatBeforeTheBody) {
  entry_steps.clear();
  {
    Worker worker([] { entry_steps += "body"; });
    worker.at_entry = [] { entry_steps += "dynamic entry"; };
    worker.StartThread();
    ASSERT_TRUE(worker.ended_within(patience));
    EXPECT_EQ(worker.exit_code(), 0u);
  }
  EXPECT_EQ(entry_steps, "redirectguarantee(16384)resetdynamic entrybody");
}

TEST_F(ThreadCalls, StopWaitsAndKillsWhenTheTimeIsUp) {
  Watch watch;
  WaitingThread thread;
  thread.StopThread(5);
  thread.AttachHandle(nullptr);
  thread.StopThread(5);
  EXPECT_EQ(watch.calls, "");
  thread.start_into_body();
  watch.calls.clear();
  watch.failing = "TerminateThread";
  EXPECT_EQ(system_code([&] { thread.StopThread(5); }), injected_code);
  watch.failing.clear();
  thread.StopThread(6);
  EXPECT_EQ(watch.calls,
            "WaitForSingleObjectEx(handle, 5, 1)TerminateThread(handle, 0)"
            "WaitForSingleObjectEx(handle, 6, 1)TerminateThread(handle, 0)");
}

TEST_F(ThreadCalls, InterruptionWaitsQueuesAndStops) {
  Watch watch;
  WaitingThread thread;
  thread.InterruptThread(3, 4);
  EXPECT_EQ(watch.calls, "WaitForSingleObjectEx(process, 3, 1)");
  EXPECT_EQ(thread.InterruptState, WaitingThread::InterruptRequested);

  thread.InterruptState = WaitingThread::Idle;
  thread.start_into_body();
  auto const address = reinterpret_cast<std::uintptr_t>(static_cast<TThreadClass*>(&thread));
  auto const queueing = "QueueUserAPC(routine, handle, " + std::to_string(address) + ")";
  watch.calls.clear();
  watch.failing = "QueueUserAPC";
  EXPECT_EQ(system_code([&] { thread.InterruptThread(3, 4); }), injected_code);
  EXPECT_EQ(watch.calls, "WaitForSingleObjectEx(handle, 3, 1)" + queueing);

  watch.calls.clear();
  watch.failing.clear();
  thread.InterruptThread(3, 4);
  EXPECT_EQ(watch.calls, "WaitForSingleObjectEx(handle, 3, 1)" + queueing +
                             "WaitForSingleObjectEx(handle, 4, 1)TerminateThread(handle, 0)");
}

TEST_F(ThreadCalls, DestructorOfTThreadClassWaitsASecondAndCloses) {
  EXPECT_EQ(calls_of(new WaitingThread), "");

  let_threads_end();
  auto* thread = new WaitingThread;
  thread->start_into_body();
  EXPECT_EQ(calls_of(thread), "WaitForSingleObjectEx(handle, 1000, 1)CloseHandle(handle)");

  // An interruption could not leave it then.
  Watch watch;
  try {
    WaitingThread unwound;
    unwound.start_into_body();
    watch.calls.clear();
    throw 1;
  } catch (int) {
    EXPECT_EQ(watch.calls, "WaitForSingleObjectEx(handle, 1000, 0)CloseHandle(handle)");
  }
}

TEST_F(ThreadCalls, FailureInTheDestructorOfTThreadClassComesOutAndLosesNoHandle) {
  struct { char const *call, *calls; } const rows[] = {
      {"WaitForSingleObjectEx", "WaitForSingleObjectEx(handle, 1000, 1)CloseHandle(handle)"},
      {"TerminateThread", "WaitForSingleObjectEx(handle, 1000, 1)TerminateThread(handle, 0)"
                          "CloseHandle(handle)"},
  };
  for (auto const& [call, calls] : rows) {
    end_of_waiting().Reset();
    long const before = open_handles();
    auto* thread = new WaitingThread;
    thread->start_into_body();
    THandle const other = *thread;
    std::string found;
    EXPECT_EQ(code_of_failing(call, [&] { delete thread; }, found), injected_code) << call;
    EXPECT_EQ(found, calls);
    let_threads_end();
    ::WaitForSingleObject(other, INFINITE);
    EXPECT_TRUE(open_handles_fall_to(before + 1)) << call;
  }
  // Both at once would end the process.
  auto* thread = new WaitingThread;
  thread->AttachHandle(buffer);
  EXPECT_EQ(system_code([&] { delete thread; }), ERROR_INVALID_HANDLE);
}

