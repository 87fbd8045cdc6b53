// What the owners of kernel objects do on the platform's real objects. Failing
// calls are rows of tests/platform/PlatformFailures.cpp.
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <string>
#include <thread>

#include "tests/locks/Agent.h"
#include "tests/support/Expect.h"
#include "tests/support/OpenHandles.h"
#include "velt/locks/Event.h"
#include "velt/locks/Handle.h"
#include "velt/locks/Mutex.h"
#include "velt/locks/Semaphore.h"

using namespace velt_test;

namespace {

constexpr int limit = 20'000;
void* const minus_one = INVALID_HANDLE_VALUE;

void* raw(THandle const& handle) { return handle; }

// The object is not signalled before `give`.
template <class Timed, class Untimed, class Give>
void expect_queued_calls_end_only(Timed timed, Untimed untimed, Give give) {
  Agent agent;
  for (bool const is_timed : {true, false}) {
    std::atomic<bool> done = false;
    agent.start([&] {
      if (!is_timed) return untimed();
      EXPECT_FALSE(timed());
    });
    EXPECT_TRUE(agent.waits());
    agent.queue([&] { done = true; });
    for (int i = 0; i < limit && !done; ++i) Sleep(1);
    EXPECT_EQ(agent.waits(), !is_timed);
  }
  give();
  agent.finish();
}

}  // namespace

TEST(Handle, AssignmentToItselfClosesAndHoldsNothing) {
  long const before = open_handles();
  TEvent event;
  THandle& same = event;
  same = event;
  EXPECT_EQ(raw(event), minus_one);
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

TEST(KernelObjects, QueuedCallsEndTimedWaitsAndNotUntimedOnes) {
  TEvent event(false, false);
  expect_queued_calls_end_only([&] { return event.Signaled(limit); },
                               [&] { event.WaitForSignal(); }, [&] { event.Set(); });
  TSemaphore semaphore(1, 0);
  expect_queued_calls_end_only([&] { return semaphore.Lock(limit); }, [&] { semaphore.Lock(); },
                               [&] { semaphore.Unlock(); });
  TMutex mutex;
  mutex.Lock();
  expect_queued_calls_end_only([&] { return mutex.Lock(limit); }, [&] { mutex.Lock(); },
                               [&] { mutex.Unlock(); });
}

TEST(KernelObjects, MutexOfAnOwnerThatEndedIsAcquired) {
  TMutex mutex;
  auto const abandon = [&] { std::thread([&] { mutex.Lock(); }).join(); };
  abandon();
  EXPECT_TRUE(mutex.Lock(limit));
  mutex.Unlock();
  abandon();
  mutex.Lock();
  mutex.Unlock();
  abandon();
  EXPECT_EQ(mutex.WaitForSingleObject(limit, FALSE), DWORD{WAIT_ABANDONED});
}
