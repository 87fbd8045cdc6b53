// What the owners of kernel objects do on the platform's real objects. Failing
// calls are rows of tests/platform/PlatformFailures.cpp.
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <functional>
#include <thread>

#include "tests/locks/Agent.h"
#include "tests/support/OpenHandles.h"
#include "velt/locks/Event.h"
#include "velt/locks/Handle.h"
#include "velt/locks/Mutex.h"
#include "velt/locks/Semaphore.h"

using namespace velt_test;

namespace {

constexpr int limit = 20'000;

void* raw(THandle const& handle) { return handle; }

}  // namespace

TEST(Handle, SharesARawHandleUnlessItIsAttachedAndLosesItsOwnToItself) {
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
    EXPECT_EQ(sharing.DetachHandle(), INVALID_HANDLE_VALUE);
    sharing.AttachHandle(event);
    THandle const& same = sharing;
    sharing = same;
    EXPECT_EQ(raw(sharing), INVALID_HANDLE_VALUE);
  }
  EXPECT_EQ(open_handles(), before);
}

TEST(KernelObjects, QueuedCallsEndTimedWaitsAndNotUntimedOnes) {
  TEvent event(false, false);
  TSemaphore semaphore(1, 0);
  TMutex mutex;
  mutex.Lock();
  struct {
    std::function<bool()> timed;
    std::function<void()> untimed, give;
  } const rows[] = {
      {[&] { return event.Signaled(limit); }, [&] { event.WaitForSignal(); }, [&] { event.Set(); }},
      {[&] { return semaphore.Lock(limit); }, [&] { semaphore.Lock(); },
       [&] { semaphore.Unlock(); }},
      {[&] { return mutex.Lock(limit); }, [&] { mutex.Lock(); }, [&] { mutex.Unlock(); }},
  };
  for (auto const& [timed, untimed, give] : rows) {
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
}

TEST(KernelObjects, MutexOfAnOwnerThatEndedIsAcquired) {
  TMutex mutex;
  for (bool const timed : {true, false}) {
    std::thread([&] { mutex.Lock(); }).join();
    EXPECT_TRUE(!timed || mutex.Lock(limit));
    if (!timed) mutex.Lock();
    mutex.Unlock();
  }
}
