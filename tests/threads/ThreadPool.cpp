#include "velt/threads/ThreadPool.h"

#include <process.h>

#include <algorithm>
#include <new>
#include <random>

#include "tests/support/Expect.h"
#include "tests/support/Imports.h"
#include "tests/support/OpenHandles.h"
#include "tests/threads/Support.h"

using namespace velt_test;

TEST(ThreadPool, RunsJobsInTheOrderTheyCame) {
  TestPool const pool(1, 0);
  std::string order;
  for (char c = '!'; c < '~'; ++c) pool->AddJob(job([&, c] { order += c; }));
  ASSERT_TRUE(pool->WaitForIdle(patience));
  EXPECT_EQ(order.size(), std::size_t{'~' - '!'});
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end())) << order;
}

TEST(ThreadPool, BacklogIsToldAndAFullQueueRefusesAJob) {
  TestPool const pool(1, 0, 2);
  Gate gate;
  EXPECT_TRUE(pool->AddJob(gate.job()));
  ASSERT_TRUE(pool.become({1, 1, 0, 0}));
  EXPECT_TRUE(pool->AddJob(gate.job()));
  EXPECT_FALSE(pool->AddJob(gate.job())) << "more than the maximum wait";
  auto const refused = gate.job();
  EXPECT_EQ(values_of([&] { pool->AddJob(refused); }),
            "Text=Thread pool overflowed;JobQueueSize=2;ThreadsSize=1");
  EXPECT_EQ(refused.use_count(), 1);
  EXPECT_EQ(pool.counts(), (PoolCounts{3, 1, 2, 0}));
  gate.open.Set();
  ASSERT_TRUE(pool->WaitForIdle(patience));
  EXPECT_EQ(gate.inside, 3);
  pool->AddJob(refused);
  EXPECT_TRUE(pool->WaitForIdle(patience));
}

TEST(ThreadPool, HigherMaximumStartsWorkersAndALowerOneEndsThemAsTheyFinishAJob) {
  TestPool const pool(0, 0);
  Gate gates[3];
  for (auto& gate : gates) EXPECT_FALSE(pool->AddJob(gate.job()));
  EXPECT_EQ(pool.counts(), (PoolCounts{3, 0, 3, 0}));
  pool->SetLimits(3, 0, 0);
  ASSERT_TRUE(pool.become({3, 3, 0, 0}));
  pool->SetLimits(1, 0, 0);
  EXPECT_EQ(pool.counts(), (PoolCounts{3, 3, 0, 0}));
  // One after the other: workers that finish at once may all see that they are too many.
  gates[0].open.Set();
  EXPECT_TRUE(pool.become({2, 2, 0, 0}));
  gates[1].open.Set();
  EXPECT_TRUE(pool.become({1, 1, 0, 0}));
  gates[2].open.Set();
  EXPECT_TRUE(pool.become({0, 1, 0, 1}));
}

// Here they do so after 50 milliseconds. Above a lowered maximum too.
TEST(ThreadPool, IdleWorkersLeaveAfterTenSecondsDownToTheMinimum) {
  for (int const minimum : {0, 1, 2}) {
    TestPool const pool(4, 3);
    Gate gate;
    Replacement const sooner{VELT_CALL(WaitForSingleObjectEx),
                             [](auto platform, HANDLE object, DWORD time, BOOL alertable) {
                               return platform(object, time == 10'000 ? 50 : time, alertable);
                             }};
    for (int i = 1; i <= 3; ++i) {
      pool->AddJob(gate.job());
      ASSERT_TRUE(eventually([&] { return gate.inside == i; }));
    }
    gate.open.Set();
    ASSERT_TRUE(pool.become({0, 3, 0, 3}));
    pool->AddJob(job([] {}));  // starts none beside those that are idle
    ::Sleep(200);
    EXPECT_EQ(pool.counts(), (PoolCounts{0, 3, 0, 3}));
    pool->SetLimits(1, minimum, 0);
    EXPECT_TRUE(pool.become({0, minimum, 0, minimum}));
    ::Sleep(200);
    EXPECT_EQ(pool.counts(), (PoolCounts{0, minimum, 0, minimum}));
  }
}

// A wake-up that is lost would delay a job until the idle time is over, and a worker
// that leaves its job to others would delay it until one of them has finished its own.
TEST(ThreadPool, SleepingWorkerGetsEachJobAndTheOneThatComesWhileItLeaves) {
  constexpr int wake_ups = 40;
  Gate gate;
  std::atomic<int> sleeps = 0, runs = 0;
  TestPool const pool(2, 0);
  auto const count = [&] { ++runs; };
  Replacement const sleep{VELT_CALL(WaitForSingleObjectEx),
                          [&](auto platform, HANDLE object, DWORD time, BOOL alertable) -> DWORD {
                            if (time != 10'000 || ++sleeps <= wake_ups)
                              return platform(object, time, alertable);
                            if (sleeps == wake_ups + 1) pool->AddJob(job(count));
                            return WAIT_TIMEOUT;
                          }};
  pool->AddJob(gate.job());
  ASSERT_TRUE(eventually([&] { return gate.inside == 1; }));
  for (int i = 1; i <= wake_ups; ++i) {
    ASSERT_TRUE(pool->AddJob([] {})->WaitForFinish(5'000)) << i;
    ASSERT_TRUE(eventually([&] { return sleeps == i; })) << i;
  }
  pool->AddJob(job(count));
  EXPECT_TRUE(eventually([&] { return runs == 2; }));
}

// The destructors of the jobs may use the pool. Tasks are dropped without a word.
TEST(ThreadPool, ClearedQueueLeavesThePoolBusyUntilTheNextJobHasFinished) {
  TestPool const pool(0, 0);
  auto const add_another = [&](void*) { pool->AddJob(job([] {})); };
  for (int i = 0; i < 3; ++i)
    pool->AddJob(job([use = std::shared_ptr<void>(&i, add_another)] { ADD_FAILURE() << "ran"; }));
  auto const task = pool->AddJob([] { ADD_FAILURE() << "ran"; });
  EXPECT_FALSE(pool->WaitForIdle(0));
  pool->ClearQueue();
  EXPECT_EQ(pool.counts(), (PoolCounts{3, 0, 3, 0}));
  EXPECT_FALSE(task->IsFinished() || task->IsException());
  pool->ClearQueue();
  EXPECT_EQ(pool.counts(), (PoolCounts{0, 0, 0, 0}));
  EXPECT_FALSE(pool->WaitForIdle(0));
  pool->SetLimits(1, 0, 0);
  pool->AddJob(job([] {}));
  EXPECT_TRUE(pool->WaitForIdle(patience));
}

TEST(ThreadPool, WorkerThatCannotStartIsToldButTheJobStaysQueued) {
  TestPool const pool(2, 0);
  std::atomic<int> runs = 0;
  auto const counting = job([&] { ++runs; });
  {
    Replacement const failing{VELT_CALL(_beginthreadex), [](auto...) -> std::uintptr_t {
                                SetLastError(injected_code);
                                return 0;
                              }};
    EXPECT_EQ(system_code([&] { pool->AddJob(counting); }), injected_code);
  }
  EXPECT_EQ(pool.counts(), (PoolCounts{1, 1, 1, 0}));
  pool->AddJob(counting);
  EXPECT_TRUE(pool->WaitForIdle(patience));
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(pool.counts()[1], 2);
}

TEST(ThreadPool, JobForWhichTheQueueHasNoMemoryIsNotCounted) {
  TestPool const pool(0, 0);
  auto const nothing = job([] {});
  int added = 0;
  {
    // operator new
    Replacement const full{Call<void* (*)(std::size_t)>{"_Znwy"},
                           [](auto...) -> void* { throw std::bad_alloc(); }};
    EXPECT_THROW(
        for (; added < 1'000; ++added) pool->AddJob(nothing), std::bad_alloc);
  }
  EXPECT_EQ(pool.counts(), (PoolCounts{added, 0, added, 0}));
}

// Each that dies leaves a line, and its exception is thrown once.
TEST(ThreadPool, LastWorkerIsReplacedWhileJobsWait) {
  DebugText debug;
  EXPECT_EQ(throws_during([] {
    TestPool const pool(1, 0);
    Gate gate;
    int runs = 0;
    for (int i = 0; i < 3; ++i)
      pool->AddJob(job([&] {
        gate.open.WaitForSignal();
        ++runs;
        throw 5;
      }));
    gate.open.Set();
    EXPECT_TRUE(pool.become({0, 0, 0, 0}));
    EXPECT_EQ(runs, 3);
    EXPECT_TRUE(pool->WaitForIdle(0));
  }), 3);
  std::string const line = "(!) Thread runaway with unknown exception\n";
  EXPECT_EQ(debug.text(), line + line + line);
}

TEST(ThreadPool, CancelledTaskGivesItsWorkerBack) {
  long const before = open_handles();
  {
    TestPool const pool(1, 0);
    TEvent never_set;
    auto const task = pool->AddJob([&] { never_set.WaitForSignal(); });
    auto const next = pool->AddJob([] {});
    auto const never = pool->AddJob([&] { ADD_FAILURE() << "was cancelled"; });
    ASSERT_TRUE(task->WaitForStart(patience));
    never->Cancel();
    task->Cancel();
    EXPECT_TRUE(task->IsFinished() && task->IsException() && never->IsException());
    EXPECT_TRUE(next->WaitForFinish(patience));
    // The price: the cancelled task counts as running for good.
    EXPECT_TRUE(pool.become({1, 1, 0, 1}));
    EXPECT_FALSE(pool->WaitForIdle(0));
  }
  // The handle of the thread that was interrupted stays open.
  EXPECT_TRUE(open_handles_fall_to(before + 1));
  EXPECT_GT(open_handles(), before);
}

// The pool has one worker, which the interruption would meet in the next task.
TEST(ThreadPool, TaskThatEndsWhileItIsCancelledLeavesTheNextOneAlone) {
  TestPool const pool(1, 1);
  std::minstd_rand random(7);
  auto const compute = [](unsigned rounds) { while (rounds-- != 0) YieldProcessor(); };
  for (int i = 0; i < 60; ++i) {
    std::atomic<bool> begun = false, go_on = false, done = false;
    auto const task = pool->AddJob([&, rounds = random() % 3'000] {
      begun = true;
      while (!go_on) YieldProcessor();
      compute(rounds);
    });
    auto const next = pool->AddJob([&] { done = true; });
    ASSERT_TRUE(eventually([&] { return begun.load(); })) << i;
    go_on = true;
    compute(random() % 3'000);
    task->Cancel();
    ASSERT_TRUE(next->WaitForFinish(5'000)) << i;
    ASSERT_TRUE(done && !next->IsException()) << i;
  }
}

TEST(ThreadPool, StopEndsIdleAndBusyWorkersAndDropsTheQueue) {
  DebugText debug;
  long const before = open_handles();
  {
    TestPool const pool(2, 2);
    Gate idle, busy;
    for (auto const gate : {&idle, &busy}) {
      pool->AddJob(gate->job());
      ASSERT_TRUE(eventually([&] { return gate->inside == 1; }));
    }
    idle.open.Set();
    ASSERT_TRUE(pool.become({1, 2, 0, 1}));
    pool->Stop();
    for (auto const gate : {&idle, &busy}) EXPECT_TRUE(signaled_within(gate->thread, 0));
    // What was interrupted stays counted.
    EXPECT_EQ(pool.counts(), (PoolCounts{1, 0, 0, 0}));

    EXPECT_FALSE(pool->AddJob(job([] {})));
    EXPECT_EQ(pool.counts(), (PoolCounts{2, 0, 1, 0}));
    pool->SetLimits(1, 0, 0);
    EXPECT_TRUE(pool.become({1, 1, 0, 1}));
  }
  EXPECT_EQ(debug.text(), "");
  EXPECT_TRUE(open_handles_fall_to(before));
}
