#include "velt/threads/LightEventInternal.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "tests/threads/PoolSupport.h"
#include "velt/exceptions/ExceptionFamily.h"

using namespace velt_test;
using velt::detail::light_event;

namespace {

struct LightEvent : ::testing::Test {
  LightEvent() { event.Reset(); }
  ~LightEvent() noexcept override {}

  light_event event;
};

void queue(PAPCFUNC call) { ::QueueUserAPC(call, GetCurrentThread(), 0); }

}  // namespace

TEST_F(LightEvent, StaysAsItIsMade) {
  EXPECT_TRUE(light_event().Wait(0));
  EXPECT_FALSE(event.Wait(0));
  EXPECT_FALSE(event.Wait(1));
  event.Set();
  EXPECT_TRUE(event.Wait(0));
  EXPECT_TRUE(event.Wait(-1));
  event.Reset();
  EXPECT_FALSE(event.Wait(0));
}

TEST_F(LightEvent, WaitIsLeftByQueuedCallsAndByInterruption) {
  for (int const timeout : {0, -1}) {
    queue([](ULONG_PTR) {});
    EXPECT_FALSE(event.Wait(timeout));
    queue([](ULONG_PTR) { throw EThreadInterrupt(); });
    EXPECT_THROW(event.Wait(timeout), EThreadInterrupt);
  }
  // None of them counts as a waiter any more.
  EXPECT_EQ(event.raise(), 0);
}

TEST_F(LightEvent, SetWakesAllWhoWaitThoughItIsResetAtOnce) {
  std::atomic<int> woken = 0;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 3; ++i) threads.emplace_back([&] { woken += event.Wait(patience); });
  ::Sleep(50);
  event.Set();
  event.Reset();
  threads.clear();
  EXPECT_EQ(woken, 3);
  EXPECT_FALSE(event.Wait(0));
}

// What a waiter leaves that was woken and did not notice must not wake the next
// one for good.
TEST_F(LightEvent, HintThatNobodyTookWakesNobodyLater) {
  static light_event* set;
  set = &event;
  queue([](ULONG_PTR) {
    set->Set();
    set->Reset();
    throw EThreadInterrupt();
  });
  EXPECT_THROW(event.Wait(-1), EThreadInterrupt);
  EXPECT_FALSE(event.Wait(20));
  EXPECT_EQ(event.raise(), 0);
}

// One thread sets and resets; the others, who wait on or give up after a
// millisecond or none, must each have been woken by a Set() of their time.
TEST_F(LightEvent, NobodyIsForgottenAndNobodyWokenForNothing) {
  std::atomic<int> begun = 0, done = 0;
  std::atomic<bool> stop = false;
  std::vector<std::jthread> waiters;
  for (unsigned i = 0; i < 3; ++i)
    waiters.emplace_back([&, i] {
      std::mt19937 random(i);
      while (!stop) {
        int const before = done;
        int const timeout = random() % 2 == 0 ? -1 : static_cast<int>(random() % 2);
        bool const woken = event.Wait(timeout);
        EXPECT_TRUE(woken || timeout >= 0);
        EXPECT_TRUE(!woken || stop || begun > before);
      }
    });
  for (int i = 0; i < 3'000; ++i) {
    ++begun;
    event.Set();
    event.Reset();
    ++done;
    if (i % 16 == 0) ::Sleep(1);
  }
  stop = true;
  event.Set();
}
