#include "velt/threads/LightSemaphoreInternal.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "tests/threads/PoolSupport.h"
#include "velt/exceptions/ExceptionFamily.h"

using namespace velt_test;
using velt::detail::light_semaphore;

namespace {

struct LightSemaphore : ::testing::Test {
  ~LightSemaphore() noexcept override {}

  // What can be taken now, all of it.
  int rest() {
    int count = 0;
    while (semaphore.Lock(0)) ++count;
    return count;
  }
  light_semaphore semaphore{100};
};

void queue(PAPCFUNC call) { ::QueueUserAPC(call, GetCurrentThread(), 0); }

}  // namespace

TEST_F(LightSemaphore, GivesAsOftenAsItWasReleased) {
  EXPECT_EQ(rest(), 0);
  for (int i = 0; i < 3; ++i) semaphore.Release();
  EXPECT_TRUE(semaphore.Lock(INFINITE));
  EXPECT_EQ(rest(), 2);
}

TEST_F(LightSemaphore, WaitThatEndsInVainLeavesTheCountAlone) {
  EXPECT_FALSE(semaphore.Lock(1));
  queue([](ULONG_PTR) {});
  EXPECT_FALSE(semaphore.Lock(INFINITE));
  queue([](ULONG_PTR) { throw EThreadInterrupt(); });
  EXPECT_THROW(semaphore.Lock(INFINITE), EThreadInterrupt);
  semaphore.Release();
  EXPECT_EQ(rest(), 1);
}

// Else a pool that clears its queue could lose its place half-way.
TEST_F(LightSemaphore, RunsNoQueuedCallsWithoutWaiting) {
  queue([](ULONG_PTR) { throw EThreadInterrupt(); });
  EXPECT_FALSE(semaphore.Lock(0));
  EXPECT_THROW(TThread::Sleep(0, TRUE), EThreadInterrupt);
}

TEST_F(LightSemaphore, CountThatCameWithAnInterruptionIsPassedOn) {
  static light_semaphore* released;
  released = &semaphore;
  queue([](ULONG_PTR) {
    released->Release();
    throw EThreadInterrupt();
  });
  EXPECT_THROW(semaphore.Lock(INFINITE), EThreadInterrupt);
  EXPECT_EQ(rest(), 1);
}

TEST_F(LightSemaphore, WakesEachWaiterOnce) {
  std::atomic<int> woken = 0;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] { woken += semaphore.Lock(INFINITE); });
  for (int i = 1; i <= 4; ++i) {
    semaphore.Release();
    EXPECT_TRUE(eventually([&] { return woken == i; }));
  }
}

// Takers that give up after a millisecond or none race with releases.
TEST_F(LightSemaphore, LosesAndInventsNothing) {
  constexpr int per_thread = 2'000;
  light_semaphore many(1'000'000);
  std::atomic<int> taken = 0;
  std::atomic<bool> stop = false;
  std::vector<std::jthread> takers, givers;
  for (unsigned i = 0; i < 3; ++i)
    takers.emplace_back([&, i] {
      std::mt19937 random(i);
      while (!stop) taken += many.Lock(random() % 2);
    });
  for (unsigned i = 0; i < 2; ++i)
    givers.emplace_back([&, i] {
      std::mt19937 random(i);
      for (int n = 0; n < per_thread; ++n) {
        many.Release();
        if (random() % 64 == 0) ::Sleep(1);
      }
    });
  givers.clear();
  EXPECT_TRUE(eventually([&] { return taken == 2 * per_thread; }));
  stop = true;
  takers.clear();
  EXPECT_EQ(taken, 2 * per_thread);
  EXPECT_FALSE(many.Lock(0));
}
