// What the owners of kernel objects do on the platform's real objects. Which
// call each operation makes, and what its failure does, stands in
// PlatformCalls.cpp.
#include <gtest/gtest.h>
#include <windows.h>

#include <functional>
#include <string>
#include <thread>

#include "tests/support/OpenHandles.h"
#include "tests/support/SystemCode.h"
#include "velt/locks/Event.h"
#include "velt/locks/Handle.h"
#include "velt/locks/Lock.h"
#include "velt/locks/Mutex.h"
#include "velt/locks/Semaphore.h"
#include "velt/locks/WaitableTimer.h"

using velt_test::open_handles;
using velt_test::system_code;

namespace {

constexpr int limit = 20'000;
void* const minus_one = INVALID_HANDLE_VALUE;

void* raw(THandle const& handle) { return handle; }

std::string unique(char const* what) {
  return std::string("velt-one-") + what + "-" + std::to_string(GetCurrentProcessId());
}
std::wstring wide(std::string const& text) { return std::wstring(text.begin(), text.end()); }

// Runs when this thread next waits alertably. Must stay until then.
class QueuedCall {
public:
  explicit QueuedCall(std::function<void()> what) : action(std::move(what)) {
    QueueUserAPC([](ULONG_PTR self) { reinterpret_cast<QueuedCall*>(self)->run(); },
                 GetCurrentThread(), reinterpret_cast<ULONG_PTR>(this));
  }
  int runs = 0;

private:
  void run() {
    ++runs;
    action();
  }
  std::function<void()> action;
};

void on_another_thread(std::function<void()> action) { std::thread(action).join(); }

}  // namespace

TEST(Handle, FreshOneHoldsMinusOne) {
  THandle handle;
  EXPECT_EQ(raw(handle), minus_one);
  EXPECT_FALSE(handle.IsValidHandle());
  EXPECT_EQ(raw(THandle(handle)), minus_one);
  EXPECT_EQ(raw(THandle(nullptr)), nullptr);
  EXPECT_FALSE(THandle::IsValidHandle(nullptr));
  EXPECT_FALSE(THandle::IsValidHandle(minus_one));
  EXPECT_TRUE(THandle::IsValidHandle(GetCurrentThread()));
}

TEST(Handle, AssignmentStoresTheSourcesWayOfHoldingNothing) {
  THandle handle = TEvent();
  handle = nullptr;
  EXPECT_EQ(raw(handle), nullptr);
  handle = THandle();
  EXPECT_EQ(raw(handle), minus_one);
}

TEST(Handle, CopiesOwnTheSameObjectEachByItself) {
  long const before = open_handles();
  {
    TEvent event;
    TEvent copy(event);
    EXPECT_NE(raw(copy), raw(event));
    event.CloseHandle();
    EXPECT_EQ(raw(event), minus_one);
    TEvent third;
    third = copy;
    third.Set();
    EXPECT_TRUE(copy.Signaled(0));
    EXPECT_EQ(open_handles(), before + 2);
  }
  EXPECT_EQ(open_handles(), before);
}

TEST(Handle, RawHandleIsSharedUnlessAttached) {
  long const before = open_handles();
  void* const event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  {
    THandle sharing(event);
    EXPECT_NE(raw(sharing), event);
    sharing = event;
    EXPECT_EQ(open_handles(), before + 2);
    sharing.AttachHandle(event);
    EXPECT_EQ(raw(sharing), event);
    EXPECT_EQ(open_handles(), before + 1) << "the handle held before is closed";
    EXPECT_EQ(sharing.DetachHandle(), event);
    EXPECT_EQ(sharing.DetachHandle(), minus_one);
  }
  EXPECT_TRUE(CloseHandle(event));
}

TEST(Handle, AssignmentToItselfClosesAndHoldsNothing) {
  long const before = open_handles();
  TEvent event;
  THandle& same = event;
  same = event;
  EXPECT_EQ(raw(event), minus_one);
  EXPECT_EQ(open_handles(), before);
}

TEST(Handle, ClosingNothingIsLeftToThePlatformToRefuse) {
  THandle null(nullptr);
  EXPECT_EQ(system_code([&] { null.CloseHandle(); }), ERROR_INVALID_HANDLE);
  EXPECT_EQ(raw(null), nullptr);
  // Windows refuses -1 as well; a platform that does not gives no failure to throw.
  THandle nothing;
  bool const refused = !CloseHandle(minus_one);
  EXPECT_EQ(system_code([&] { nothing.CloseHandle(); }), refused ? ERROR_INVALID_HANDLE : -1);
  EXPECT_EQ(raw(nothing), minus_one);
}

TEST(Handle, HandleClosedBySomebodyElseShows) {
  auto const close_twice = [] {
    THandle handle(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    CloseHandle(handle);
  };
  EXPECT_EQ(system_code(close_twice), ERROR_INVALID_HANDLE);
  TEvent event;
  void* const stale = event;
  event.CloseHandle();
  EXPECT_EQ(system_code([&] { THandle copy(stale); }), ERROR_INVALID_HANDLE);
  EXPECT_EQ(system_code([&] { event.Set(); }), ERROR_INVALID_HANDLE);
}

TEST(Handle, WaitAnswersThePlatformsResult) {
  TEvent event(false, false);
  EXPECT_EQ(event.WaitForSingleObject(0, FALSE), DWORD{WAIT_TIMEOUT});
  event.Set();
  EXPECT_EQ(event.WaitForSingleObject(0, FALSE), WAIT_OBJECT_0);
  QueuedCall call([] {});
  EXPECT_EQ(event.WaitForSingleObject(0, FALSE), DWORD{WAIT_TIMEOUT});
  EXPECT_EQ(event.WaitForSingleObject(limit, TRUE), DWORD{WAIT_IO_COMPLETION});
  EXPECT_EQ(system_code([] { THandle(nullptr).WaitForSingleObject(0, FALSE); }),
            ERROR_INVALID_HANDLE);
}

TEST(Mutex, KeepsOtherThreadsOutUntilEveryLockIsUndone) {
  TMutex mutex;
  mutex.Lock();
  EXPECT_TRUE(mutex.Lock(0));
  auto const is_free = [&] {
    bool result;
    on_another_thread([&] {
      result = mutex.Lock(0);
      if (result) mutex.Unlock();
    });
    return result;
  };
  mutex.Unlock();
  EXPECT_FALSE(is_free());
  mutex.ReleaseMutex();
  EXPECT_TRUE(is_free());
  EXPECT_EQ(system_code([&] { mutex.Unlock(); }), ERROR_NOT_OWNER);
}

TEST(Mutex, InitialOwnerIsTheCallThatMadeIt) {
  TMutex mutex(DoNotInitialize);
  mutex.CreateMutexW(unique("owned").c_str(), true);
  on_another_thread([&] {
    TMutex second(DoNotInitialize);
    second.CreateMutexW(wide(unique("owned")).c_str(), true);
    EXPECT_FALSE(second.Lock(0));
  });
  mutex.Unlock();
}

TEST(Mutex, AbandonedOneIsAcquired) {
  TMutex timed, untimed;
  on_another_thread([&] {
    timed.Lock();
    untimed.Lock();
  });
  EXPECT_TRUE(timed.Lock(limit));
  untimed.Lock();
  timed.Unlock();
  untimed.Unlock();
}

TEST(Mutex, QueuedCallEndsATimedLockAndNotAnUntimedOne) {
  TMutex mutex;
  TEvent owned, give_back;
  std::thread owner([&] {
    TLock guard(mutex);
    owned.Set();
    give_back.WaitForSignal();
  });
  owned.WaitForSignal();
  QueuedCall nothing([] {});
  EXPECT_FALSE(mutex.Lock(limit));
  EXPECT_EQ(nothing.runs, 1);
  QueuedCall release([&] { give_back.Set(); });
  mutex.Lock();
  EXPECT_EQ(release.runs, 1);
  mutex.Unlock();
  owner.join();
}

TEST(Semaphore, CountsDownAndUp) {
  TSemaphore full(3);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(full.Lock(0));
  EXPECT_FALSE(full.Lock(0));
  EXPECT_EQ(full.ReleaseSemaphore(2), 0);
  full.Unlock();
  EXPECT_EQ(system_code([&] { full.Unlock(); }), ERROR_TOO_MANY_POSTS);
  EXPECT_EQ(system_code([&] { full.ReleaseSemaphore(2); }), ERROR_TOO_MANY_POSTS);

  TSemaphore empty(3, 0);
  EXPECT_FALSE(empty.Lock(0));
  EXPECT_EQ(empty.ReleaseSemaphore(3), 0);
}

TEST(Semaphore, ImpossibleCountsThrow) {
  EXPECT_EQ(system_code([] { TSemaphore(0); }), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(system_code([] { TSemaphore(1, 2); }), ERROR_INVALID_PARAMETER);
}

TEST(Semaphore, QueuedCallEndsATimedLockAndNotAnUntimedOne) {
  TSemaphore semaphore(1, 0);
  QueuedCall nothing([&] { semaphore.Unlock(); });
  EXPECT_FALSE(semaphore.Lock(limit)) << "although the call itself gave the count";
  EXPECT_TRUE(semaphore.Lock(0));
  QueuedCall give([&] { semaphore.Unlock(); });
  semaphore.Lock();
  EXPECT_EQ(give.runs, 1);
  EXPECT_FALSE(semaphore.Lock(0));
}

TEST(Semaphore, ThreadIsInterruptedOutOfALock) {
  TSemaphore semaphore(1, 0);
  QueuedCall interrupt([] { throw EThreadInterrupt(); });
  EXPECT_THROW(semaphore.Lock(), EThreadInterrupt);
  semaphore.Unlock();
  EXPECT_TRUE(semaphore.Lock(0));
}

TEST(Event, ManualOneStaysSignalledTheOtherLetsOneThrough) {
  TEvent manual;
  EXPECT_FALSE(manual.Signaled(0));
  manual.Set();
  EXPECT_TRUE(manual.Signaled(0));
  EXPECT_TRUE(manual.Signaled(-1));
  manual.Reset();
  EXPECT_FALSE(manual.Signaled(0));

  TEvent automatic(false, true);
  EXPECT_TRUE(automatic.Signaled(0));
  EXPECT_FALSE(automatic.Signaled(0));
  automatic.SetEvent();
  automatic.WaitForSignal();
  EXPECT_FALSE(automatic.Signaled(0));
}

TEST(Event, PulseWakesWhoWaitsAndLeavesItUnsignalled) {
  TEvent event, woken;
  std::thread waiter([&] {
    event.WaitForSignal();
    woken.Set();
  });
  // Whether the waiter has begun to wait cannot be seen, so pulse until it has.
  bool done = false;
  for (int i = 0; i < 1000 && !done; ++i) {
    event.Pulse();
    EXPECT_FALSE(event.Signaled(0));
    done = woken.Signaled(10);
  }
  EXPECT_TRUE(done);
  event.Set();
  waiter.join();
}

TEST(Event, QueuedCallEndsATimedWaitAndNotAnUntimedOne) {
  TEvent event;
  QueuedCall set([&] { event.Set(); });
  EXPECT_FALSE(event.Signaled(limit)) << "although the call itself signalled";
  EXPECT_TRUE(event.Signaled(0));
  event.Reset();
  QueuedCall again([&] { event.Set(); });
  event.WaitForSignal();
  EXPECT_EQ(again.runs, 1);
}

TEST(WaitableTimer, SignalsAfterTheTimeAndStaysSoIfManual) {
  for (bool const manual : {true, false}) {
    TWaitableTimer timer(manual);
    EXPECT_EQ(timer.WaitForSingleObject(0, FALSE), DWORD{WAIT_TIMEOUT});
    ULONGLONG const start = GetTickCount64();
    timer.SetTimer(60, 0);
    EXPECT_EQ(timer.WaitForSingleObject(limit, FALSE), WAIT_OBJECT_0);
    EXPECT_GE(GetTickCount64() - start, 40u);
    EXPECT_EQ(timer.WaitForSingleObject(0, FALSE), manual ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
  }
}

TEST(WaitableTimer, ZeroSignalsAtOnceAndAPeriodAgain) {
  TWaitableTimer timer(false);
  timer.Set(0, 0);
  EXPECT_EQ(timer.WaitForSingleObject(limit, FALSE), WAIT_OBJECT_0);
  timer.Set(1, 5);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(timer.WaitForSingleObject(limit, FALSE), WAIT_OBJECT_0);
}

TEST(WaitableTimer, MomentIsAbsolute) {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  ULARGE_INTEGER moment{{now.dwLowDateTime, now.dwHighDateTime}};
  TWaitableTimer timer;
  moment.QuadPart += 10'000 * 10'000'000ull;  // 100 ns in 10,000 s
  timer.SetTimer(FILETIME{moment.LowPart, moment.HighPart});
  EXPECT_EQ(timer.WaitForSingleObject(20, FALSE), DWORD{WAIT_TIMEOUT});
  timer.Set(now);  // past by now
  EXPECT_EQ(timer.WaitForSingleObject(limit, FALSE), WAIT_OBJECT_0);
}

TEST(WaitableTimer, CancelledOneDoesNotSignal) {
  TWaitableTimer timer;
  timer.SetTimer(50, 0);
  timer.CancelTimer();
  EXPECT_EQ(timer.WaitForSingleObject(150, FALSE), DWORD{WAIT_TIMEOUT});
}

TEST(WaitableTimer, UnknownNameIsNotNoticedUntilItIsUsed) {
  TWaitableTimer timer(DoNotInitialize);
  EXPECT_NO_THROW(timer.OpenTimer(unique("nobody").c_str(), SYNCHRONIZE));
  EXPECT_EQ(raw(timer), nullptr);
  EXPECT_EQ(system_code([&] { timer.SetTimer(1, 0); }), ERROR_INVALID_HANDLE);
}

TEST(NamedKernelObjects, UnknownNameThrowsAndLeavesNull) {
  TMutex mutex(DoNotInitialize);
  TSemaphore semaphore(DoNotInitialize);
  TEvent event(DoNotInitialize);
  std::string const name = unique("nobody");
  long const before = open_handles();
  EXPECT_EQ(system_code([&] { mutex.OpenMutexW(name.c_str(), SYNCHRONIZE); }),
            ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(system_code([&] { semaphore.OpenSemaphoreW(wide(name).c_str(), SYNCHRONIZE); }),
            ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(system_code([&] { event.OpenEventW(name.c_str(), SYNCHRONIZE); }),
            ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(raw(mutex), nullptr);
  EXPECT_EQ(raw(semaphore), nullptr);
  EXPECT_EQ(raw(event), nullptr);
  EXPECT_EQ(open_handles(), before);
}

TEST(NamedKernelObjects, NameOfAnotherKindThrows) {
  TEvent event(unique("kind").c_str());
  EXPECT_EQ(system_code([] { TMutex mutex(unique("kind").c_str()); }), ERROR_INVALID_HANDLE);
}

TEST(NamedKernelObjects, NarrowAndWideNamesAreOne) {
  TEvent narrow(unique("event").c_str(), true, false);
  TEvent opened(DoNotInitialize);
  opened.OpenEventW(wide(unique("event")).c_str(), SYNCHRONIZE);
  narrow.Set();
  EXPECT_TRUE(opened.Signaled(0));
  EXPECT_EQ(system_code([&] { opened.Reset(); }), ERROR_ACCESS_DENIED)
      << "opened for waiting only";
}

namespace {

enum class access { everybody, by_list };

access access_of(THandle const& object) {
  std::max_align_t buffer[64];
  DWORD used;
  BOOL present = FALSE, by_default;
  PACL list = nullptr;
  EXPECT_TRUE(
      GetKernelObjectSecurity(object, DACL_SECURITY_INFORMATION, buffer, sizeof buffer, &used));
  EXPECT_TRUE(GetSecurityDescriptorDacl(buffer, &present, &list, &by_default));
  return list ? access::by_list : access::everybody;
}

}  // namespace

TEST(NamedKernelObjects, EventIsOpenToEverybodyAndTheOthersAreNot) {
  EXPECT_EQ(access_of(TEvent(unique("narrow").c_str())), access::everybody);
  EXPECT_EQ(access_of(TEvent(wide(unique("wide")).c_str())), access::everybody);
  EXPECT_EQ(access_of(TMutex(unique("mutex").c_str())), access::by_list);
  EXPECT_EQ(access_of(TSemaphore(unique("semaphore").c_str(), 1, 1)), access::by_list);
  EXPECT_EQ(access_of(TWaitableTimer(unique("timer").c_str())), access::by_list);
}
