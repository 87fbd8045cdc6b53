// The kernel objects by the platform calls that they make. Tables name every
// operation with its call; the tests make that call fail.
#include <gtest/gtest.h>
#include <windows.h>

#include <new>
#include <span>
#include <string>

#include "tests/support/OpenHandles.h"
#include "tests/support/PlatformCalls.h"
#include "tests/support/Expect.h"
#include "velt/locks/Event.h"
#include "velt/locks/Handle.h"
#include "velt/locks/Mutex.h"
#include "velt/locks/Semaphore.h"
#include "velt/locks/WaitableTimer.h"

using namespace velt_test;

VELT_WATCH(CancelWaitableTimer) VELT_WATCH(CloseHandle) VELT_WATCH(CreateEventA)
VELT_WATCH(CreateEventW) VELT_WATCH(CreateMutexA) VELT_WATCH(CreateMutexW)
VELT_WATCH(CreateSemaphoreA) VELT_WATCH(CreateSemaphoreW) VELT_WATCH(CreateWaitableTimerA)
VELT_WATCH(CreateWaitableTimerW) VELT_WATCH(DuplicateHandle) VELT_WATCH(OpenEventA)
VELT_WATCH(OpenEventW) VELT_WATCH(OpenMutexA) VELT_WATCH(OpenMutexW) VELT_WATCH(OpenSemaphoreA)
VELT_WATCH(OpenSemaphoreW) VELT_WATCH(OpenWaitableTimerA) VELT_WATCH(OpenWaitableTimerW)
VELT_WATCH(PulseEvent) VELT_WATCH(ReleaseMutex) VELT_WATCH(ReleaseSemaphore)
VELT_WATCH(ResetEvent) VELT_WATCH(SetEvent) VELT_WATCH(SetWaitableTimer)
VELT_WATCH(WaitForSingleObjectEx)

namespace {

Construction const constructions[] = {
    {"CreateMutexW(none, 0, none)", [] { TMutex(); }},
    {"CreateMutexA(default access, 0, name)", [] { TMutex(name.c_str()); }},
    {"CreateMutexW(default access, 0, wide name)", [] { TMutex(wide_name.c_str()); }},
    {"CreateSemaphoreW(none, 3, 3, none)", [] { TSemaphore(3); }},
    {"CreateSemaphoreW(none, 1, 3, none)", [] { TSemaphore(3, 1); }},
    {"CreateSemaphoreA(default access, 1, 3, name)", [] { TSemaphore(name.c_str(), 3, 1); }},
    {"CreateSemaphoreW(default access, 1, 3, wide name)",
     [] { TSemaphore(wide_name.c_str(), 3, 1); }},
    {"CreateEventW(none, 1, 0, none)", [] { TEvent(); }},
    {"CreateEventW(none, 0, 1, none)", [] { TEvent(false, true); }},
    {"CreateEventA(open access, 0, 1, name)", [] { TEvent(name.c_str(), false, true); }},
    {"CreateEventW(open access, 1, 0, wide name)",
     [] { TEvent(wide_name.c_str(), true, false); }},
};

// Creation of timers, which does not notice failure.
Construction const timer_constructions[] = {
    {"CreateWaitableTimerW(none, 1, none)", [] { TWaitableTimer(); }},
    {"CreateWaitableTimerW(none, 0, none)", [] { TWaitableTimer(false); }},
    {"CreateWaitableTimerA(default access, 0, name)",
     [] { TWaitableTimer(name.c_str(), false); }},
    {"CreateWaitableTimerW(default access, 1, wide name)",
     [] { TWaitableTimer(wide_name.c_str(), true); }},
};

Operation<TMutex> const mutex_makers[] = {
    {"CreateMutexW(none, 1, none)", [](TMutex& m) { m.CreateMutexW(true); }},
    {"OpenMutexA(1048576, 0, name)", [](TMutex& m) { m.OpenMutexW(name.c_str(), SYNCHRONIZE); }},
    {"OpenMutexW(1048576, 0, wide name)",
     [](TMutex& m) { m.OpenMutexW(wide_name.c_str(), SYNCHRONIZE); }},
};
Operation<TSemaphore> const semaphore_makers[] = {
    {"CreateSemaphoreW(none, 1, 3, none)", [](TSemaphore& s) { s.CreateSemaphoreW(3, 1); }},
    {"OpenSemaphoreA(1048576, 0, name)",
     [](TSemaphore& s) { s.OpenSemaphoreW(name.c_str(), SYNCHRONIZE); }},
    {"OpenSemaphoreW(1048576, 0, wide name)",
     [](TSemaphore& s) { s.OpenSemaphoreW(wide_name.c_str(), SYNCHRONIZE); }},
};
Operation<TEvent> const event_makers[] = {
    {"CreateEventW(none, 0, 1, none)", [](TEvent& e) { e.CreateEventW(false, true); }},
    {"OpenEventA(1048576, 0, name)", [](TEvent& e) { e.OpenEventW(name.c_str(), SYNCHRONIZE); }},
    {"OpenEventW(1048576, 0, wide name)",
     [](TEvent& e) { e.OpenEventW(wide_name.c_str(), SYNCHRONIZE); }},
};
Operation<TWaitableTimer> const timer_makers[] = {
    {"CreateWaitableTimerW(none, 0, none)", [](TWaitableTimer& t) { t.CreateTimer(false); }},
    {"OpenWaitableTimerA(1048576, 0, name)",
     [](TWaitableTimer& t) { t.OpenTimer(name.c_str(), SYNCHRONIZE); }},
    {"OpenWaitableTimerW(1048576, 0, wide name)",
     [](TWaitableTimer& t) { t.OpenTimer(wide_name.c_str(), SYNCHRONIZE); }},
};

// On mutexes that the caller owns, so that they can be released.
Operation<TMutex> const mutex_uses[] = {
    {"ReleaseMutex(handle)", [](TMutex& m) { m.ReleaseMutex(); }},
    {"ReleaseMutex(handle)", [](TMutex& m) { m.Unlock(); }},
    {"WaitForSingleObjectEx(handle, 7, 1)", [](TMutex& m) { m.Lock(7); }},
    {"WaitForSingleObjectEx(handle, 4294967295, 1)", [](TMutex& m) { m.Lock(); }},
    {"WaitForSingleObjectEx(handle, 5, 0)", [](TMutex& m) { m.WaitForSingleObject(5, FALSE); }},
    {"CloseHandle(handle)", [](TMutex& m) { m.CloseHandle(); }},
};
Operation<TSemaphore> const semaphore_uses[] = {
    {"ReleaseSemaphore(handle, 2, out)", [](TSemaphore& s) { s.ReleaseSemaphore(2); }},
    {"ReleaseSemaphore(handle, 1, out)", [](TSemaphore& s) { s.Unlock(); }},
    {"WaitForSingleObjectEx(handle, 7, 1)", [](TSemaphore& s) { s.Lock(7); }},
    {"WaitForSingleObjectEx(handle, 4294967295, 1)", [](TSemaphore& s) { s.Lock(); }},
};
Operation<TEvent> const event_uses[] = {
    {"SetEvent(handle)", [](TEvent& e) { e.SetEvent(); }},
    {"SetEvent(handle)", [](TEvent& e) { e.Set(); }},
    {"ResetEvent(handle)", [](TEvent& e) { e.ResetEvent(); }},
    {"ResetEvent(handle)", [](TEvent& e) { e.Reset(); }},
    {"PulseEvent(handle)", [](TEvent& e) { e.PulseEvent(); }},
    {"PulseEvent(handle)", [](TEvent& e) { e.Pulse(); }},
    {"WaitForSingleObjectEx(handle, 7, 1)", [](TEvent& e) { e.Signaled(7); }},
    {"WaitForSingleObjectEx(handle, 4294967295, 1)", [](TEvent& e) { e.WaitForSignal(); }},
};
Operation<TWaitableTimer> const timer_uses[] = {
    {"SetWaitableTimer(handle, 0, 0, none, none, 0)", [](TWaitableTimer& t) { t.SetTimer(0, 0); }},
    {"SetWaitableTimer(handle, -42949672950000, 9, none, none, 0)",
     [](TWaitableTimer& t) { t.Set(0xFFFFFFFF, 9); }},
    {"SetWaitableTimer(handle, 8589934593, 0, none, none, 0)",
     [](TWaitableTimer& t) { t.SetTimer(FILETIME{1, 2}); }},
    {"SetWaitableTimer(handle, -1, 0, none, none, 0)",
     [](TWaitableTimer& t) { t.Set(FILETIME{0xFFFFFFFF, 0xFFFFFFFF}); }},
    {"CancelWaitableTimer(handle)", [](TWaitableTimer& t) { t.CancelTimer(); }},
    {"CancelWaitableTimer(handle)", [](TWaitableTimer& t) { t.Cancel(); }},
};

#define DUPLICATION "DuplicateHandle(process, handle, process, out, 0, 0, 2)"

TMutex owned_mutex() {
  TMutex result(DoNotInitialize);
  result.CreateMutexW(true);
  return result;
}
TSemaphore half_full_semaphore() { return TSemaphore(4, 2); }
TEvent signalled_event() { return TEvent(true, true); }
TWaitableTimer timer() { return TWaitableTimer(); }

// The first throw and the first named object open handles for good.
struct PlatformCalls : ::testing::Test {
  static void SetUpTestSuite() {
    Watch watch("CreateMutexW");
    system_code([] { TMutex(); });
    TEvent named(name.c_str());
  }
};

}  // namespace

TEST_F(PlatformCalls, ConstructorsMakeOneAndCloseItAgain) {
  for (auto const& table : {std::span<Construction const>(constructions),
                            std::span<Construction const>(timer_constructions)})
    for (auto const& [call, run] : table) {
      long const before = open_handles();
      Watch watch;
      run();
      EXPECT_EQ(watch.calls, call + std::string("CloseHandle(handle)"));
      EXPECT_EQ(open_handles(), before) << call;
    }
}

TEST_F(PlatformCalls, FailedConstructorsThrowAndLeaveNothing) {
  for (auto const& [call, run] : constructions) {
    long const before = open_handles();
    Watch watch(call_name(call));
    EXPECT_EQ(system_code(run), injected_code) << call;
    EXPECT_EQ(watch.calls, call);
    EXPECT_EQ(open_handles(), before) << call;
  }
}

TEST_F(PlatformCalls, MakersOverwriteWhatIsHeld) {
  TWaitableTimer existing(name.c_str(), true);
  expect_calls(timer_makers, nothing<TWaitableTimer>);
  TEvent event;
  void* const lost = event;
  event.CreateEventW(true, false);
  EXPECT_TRUE(CloseHandle(lost)) << "was closed by CreateEventW";
}

TEST_F(PlatformCalls, FailedMakersThrowAndHoldNull) {
  expect_failures(mutex_makers, nothing<TMutex>, after_failure::null);
  expect_failures(semaphore_makers, nothing<TSemaphore>, after_failure::null);
  expect_failures(event_makers, nothing<TEvent>, after_failure::null);
}

TEST_F(PlatformCalls, FailedMakersOfTimersHoldNullInSilence) {
  for (auto const& [call, run] : timer_constructions) {
    Watch watch(call_name(call));
    EXPECT_NO_THROW(run());
    EXPECT_EQ(watch.calls, call);
  }
  for (auto const& [call, run] : timer_makers) {
    TWaitableTimer timer(DoNotInitialize);
    {
      Watch watch(call_name(call));
      EXPECT_NO_THROW(run(timer)) << call;
    }
    EXPECT_EQ(static_cast<void*>(timer), nullptr) << call;
    Watch watch(call_name(call), none);
    EXPECT_EQ(system_code([&] { run(timer); }), injected_code) << "unlike the null handle";
  }
}

TEST_F(PlatformCalls, OperationsAreOneCallEachThrowWhenItFailsAndKeepTheHandle) {
  expect_failures(mutex_uses, owned_mutex, after_failure::unchanged);
  expect_failures(semaphore_uses, half_full_semaphore, after_failure::unchanged);
  expect_failures(event_uses, signalled_event, after_failure::unchanged);
  expect_failures(timer_uses, timer, after_failure::unchanged);
}

TEST_F(PlatformCalls, CopiesDuplicateAndAssignmentClosesFirst) {
  TEvent event;
  void* const raw = event;
  {
    Watch watch;
    THandle copy(event), shared(raw);
    EXPECT_EQ(watch.calls, DUPLICATION DUPLICATION);
    watch.calls.clear();
    copy = shared;
    EXPECT_EQ(watch.calls, "CloseHandle(handle)" DUPLICATION);
    watch.calls.clear();
    copy = raw;
    EXPECT_EQ(watch.calls, "CloseHandle(handle)" DUPLICATION);
    watch.calls.clear();
    copy = THandle();
    EXPECT_EQ(watch.calls, "CloseHandle(handle)");
  }
}

TEST_F(PlatformCalls, FailedDuplicationThrowsAndLeavesNothingHeld) {
  TEvent event;
  TEvent target;
  void* const raw = event;
  long const before = open_handles();
  {
    Watch watch("DuplicateHandle");
    EXPECT_EQ(system_code([&] { THandle copy(event); }), injected_code);
    EXPECT_EQ(system_code([&] { THandle copy(raw); }), injected_code);
    EXPECT_EQ(system_code([&] { TEvent copy(event); }), injected_code);
    EXPECT_EQ(system_code([&] { target = event; }), injected_code);
  }
  EXPECT_EQ(static_cast<void*>(target), none);
  EXPECT_EQ(open_handles(), before - 1);
}

TEST_F(PlatformCalls, FailedCloseThrowsAndKeepsTheHandle) {
  TEvent other;
  TEvent event;
  void* const raw = event;
  {
    Watch watch("CloseHandle");
    EXPECT_EQ(system_code([&] { event.CloseHandle(); }), injected_code);
    EXPECT_EQ(system_code([&] { event.AttachHandle(other); }), injected_code);
    EXPECT_EQ(system_code([&] { event = other; }), injected_code);
    EXPECT_EQ(system_code([&] { static_cast<THandle&>(event) = nullptr; }), injected_code);
    EXPECT_EQ(watch.calls.find("DuplicateHandle"), std::string::npos);
  }
  EXPECT_EQ(static_cast<void*>(event), raw);
}

// The handle stays open, since the platform refused; the test closes it.
TEST_F(PlatformCalls, DestructorThrowsWhenTheCloseFails) {
  alignas(TEvent) unsigned char place[sizeof(TEvent)];
  auto const event = new (place) TEvent;
  void* const raw = *event;
  {
    Watch watch("CloseHandle");
    EXPECT_EQ(system_code([&] { event->~TEvent(); }), injected_code);
    EXPECT_EQ(watch.calls, "CloseHandle(handle)");
  }
  EXPECT_TRUE(CloseHandle(raw));
}
