// What the owners of kernel objects do on the platform's real objects. Which
// call each operation makes, and what its failure does, stands in
// PlatformCalls.cpp.
#include <gtest/gtest.h>
#include <windows.h>

#include <functional>
#include <thread>

#include "tests/support/OpenHandles.h"
#include "tests/support/Expect.h"
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

TEST(Semaphore, ThreadIsInterruptedOutOfALock) {
  TSemaphore semaphore(1, 0);
  QueuedCall interrupt([] { throw EThreadInterrupt(); });
  EXPECT_THROW(semaphore.Lock(), EThreadInterrupt);
  semaphore.Unlock();
  EXPECT_TRUE(semaphore.Lock(0));
}

TEST(Event, QueuedCallEndsATimedWaitAndNotAnUntimedOne) {
  TEvent event(false, false);
  TSemaphore semaphore(1, 0);
  auto const give = [&] {
    event.Set();
    semaphore.Unlock();
  };
  QueuedCall call(give);
  EXPECT_FALSE(event.Signaled(limit)) << "although the call itself signalled";
  EXPECT_TRUE(event.Signaled(-1));
  EXPECT_TRUE(semaphore.Lock(0));
  QueuedCall for_event(give);
  event.WaitForSignal();
  EXPECT_FALSE(event.Signaled(0));

  EXPECT_TRUE(semaphore.Lock(0));
  QueuedCall again(give);
  EXPECT_FALSE(semaphore.Lock(limit));
  EXPECT_TRUE(semaphore.Lock(0));
  QueuedCall for_semaphore(give);
  semaphore.Lock();
  EXPECT_FALSE(semaphore.Lock(0));
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
