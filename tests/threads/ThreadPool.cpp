#include "velt/threads/ThreadPool.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <utility>

#include "tests/support/OpenHandles.h"
#include "tests/support/Expect.h"
#include "tests/threads/PoolSupport.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/text/Numbers.h"

using namespace velt_test;

namespace {

// The context that a job of the pool runs on, with the job still running.
class HeldWorker {
public:
  explicit HeldWorker(SmartPtr<IThreadPool> const& pool) {
    struct Taker : IThreadJob {
      explicit Taker(HeldWorker& its_worker) : worker(its_worker) {}
      void Run(SmartPtr<IThreadContext> const& its_context) override {
        worker.context = its_context;
        worker.taken.Set();
        worker.go_on.WaitForSignal();
      }
      HeldWorker& worker;
    };
    pool->AddJob(MakeCounted<Taker>(*this));
    taken.WaitForSignal();
  }

  SmartPtr<IThreadContext> context;
  TEvent taken, go_on;
};

}  // namespace

TEST(ThreadPool, NewPoolIsIdleAndHasNoThreadsAndItsLimits) {
  TestPool const pool(CreateNewThreadPool());
  SmartPtr<IThreadPool> const& handle = pool;
  auto const address = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(handle.get()));
  EXPECT_EQ(pool->describe(), "Thread Pool 0x" + itoa(static_cast<int>(address), 16) +
                                  " RunningJobs=0 Threads=0 Queue=0 Idle=0 MaxTotalThreads=50"
                                  " MinIdleThreads=0");
  EXPECT_TRUE(pool->WaitForIdle(0));
  EXPECT_EQ(GetSystemThreadPool(), GetSystemThreadPool());

  TestPool const other(CreateNewThreadPool(-1, 2, 1));
  EXPECT_EQ(count_of(other, "MaxTotalThreads"), -1);
  EXPECT_EQ(count_of(other, "MinIdleThreads"), 2);
  for (int const limit : {0, -1})
    EXPECT_EQ(system_code([&] { CreateNewThreadPool(1, 0, 0, limit); }), ERROR_INVALID_PARAMETER);
}

TEST(ThreadPool, RunsJobsInTheOrderTheyCame) {
  TestPool const pool(CreateNewThreadPool(1, 0));
  std::string order;
  for (char c = '!'; c < '~'; ++c) pool->AddJob(job([&, c] { order += c; }));
  ASSERT_TRUE(pool->WaitForIdle(patience));
  EXPECT_EQ(order.size(), std::size_t{'~' - '!'});
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end())) << order;
}

// A worker that cannot wake counts as idle and takes its job later.
TEST(ThreadPool, WorkerIsAddedOnlyIfMoreJobsWaitThanWorkersAreIdle) {
  TestPool const pool(CreateNewThreadPool());
  HeldWorker worker(pool);
  worker.go_on.Set();
  ASSERT_TRUE(become(pool, {0, 1, 0, 1}));
  worker.context->Suspend();
  Gate gate;
  pool->AddJob(gate.job());
  EXPECT_EQ(counts_of(pool), (PoolCounts{1, 1, 1, 1}));
  pool->AddJob(gate.job());
  ASSERT_TRUE(become(pool, {2, 2, 1, 1}));
  worker.context->Resume();
  ASSERT_TRUE(become(pool, {2, 2, 0, 0}));
  gate.open.Set();
  ASSERT_TRUE(pool->WaitForIdle(patience));
  worker.context.reset();
}

TEST(ThreadPool, BacklogIsToldAndAFullQueueRefusesAJob) {
  TestPool const pool(CreateNewThreadPool(1, 0, 0, 2));
  Gate gate;
  EXPECT_TRUE(pool->AddJob(gate.job()));
  ASSERT_TRUE(become(pool, {1, 1, 0, 0}));
  EXPECT_TRUE(pool->AddJob(gate.job()));
  EXPECT_FALSE(pool->AddJob(gate.job())) << "more than the maximum wait";
  auto const refused = gate.job();
  try {
    pool->AddJob(refused);
    ADD_FAILURE() << "did not throw";
  } catch (EGeneric const& error) {
    EXPECT_STREQ(error.what(),
                 "Text: Thread pool overflowed\nJobQueueSize: 2 (0x2)\nThreadsSize: 1 (0x1)");
  }
  EXPECT_EQ(refused.use_count(), 1);
  EXPECT_EQ(counts_of(pool), (PoolCounts{3, 1, 2, 0}));
  gate.open.Set();
  ASSERT_TRUE(pool->WaitForIdle(patience));
  EXPECT_EQ(gate.inside, 3);
  pool->AddJob(refused);
  EXPECT_TRUE(pool->WaitForIdle(patience));
}

TEST(ThreadPool, HigherMaximumStartsWorkersAndALowerOneEndsThemAsTheyFinishAJob) {
  TestPool const pool(CreateNewThreadPool(0, 0));
  Gate gate, last;
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(pool->AddJob(gate.job()));
  EXPECT_EQ(counts_of(pool), (PoolCounts{3, 0, 3, 0}));
  pool->SetLimits(3, 0, 0);
  ASSERT_TRUE(become(pool, {3, 3, 0, 0}));
  pool->SetLimits(1, 0, 0);
  EXPECT_EQ(counts_of(pool), (PoolCounts{3, 3, 0, 0}));
  gate.open.Set();
  EXPECT_TRUE(become(pool, {0, 1, 0, 1}));

  // An idle worker stays, whatever the maximum, and even works on.
  pool->SetLimits(0, 0, 0);
  pool->AddJob(last.job());
  ASSERT_TRUE(become(pool, {1, 1, 0, 0}));
  last.open.Set();
  EXPECT_TRUE(become(pool, {0, 0, 0, 0}));
}

TEST(ThreadPool, ClearedQueueLeavesThePoolBusyUntilTheNextJobHasFinished) {
  TestPool const pool(CreateNewThreadPool(0, 0));
  auto const dropped = job([] { ADD_FAILURE() << "ran"; });
  for (int i = 0; i < 3; ++i) pool->AddJob(dropped);
  EXPECT_FALSE(pool->WaitForIdle(0));
  pool->ClearQueue();
  EXPECT_EQ(counts_of(pool), (PoolCounts{0, 0, 0, 0}));
  EXPECT_EQ(dropped.use_count(), 1);
  EXPECT_FALSE(pool->WaitForIdle(0));
  pool->SetLimits(1, 0, 0);
  pool->AddJob(job([] {}));
  EXPECT_TRUE(pool->WaitForIdle(patience));
}

TEST(ThreadPool, DroppedJobMayUseThePool) {
  struct Avenger : IThreadJob {
    explicit Avenger(IThreadPool& its_pool) : pool(its_pool) {}
    ~Avenger() override { pool.AddJob(job([] {})); }
    void Run(SmartPtr<IThreadContext> const&) override {}
    IThreadPool& pool;
  };
  TestPool const pool(CreateNewThreadPool(0, 0));
  for (int i = 0; i < 3; ++i) pool->AddJob(MakeCounted<Avenger>(*pool.operator->()));
  pool->ClearQueue();
  EXPECT_EQ(counts_of(pool), (PoolCounts{3, 0, 3, 0}));
}

TEST(ThreadPool, JobThatThrowsCostsItsWorker) {
  DebugText debug;
  TestPool const pool(CreateNewThreadPool(2, 0));
  Gate gate;
  pool->AddJob(gate.job());
  ASSERT_TRUE(become(pool, {1, 1, 0, 0}));
  pool->AddJob(job(read_through_bad_pointer));
  // Not replaced as long as there are others.
  ASSERT_TRUE(become(pool, {1, 1, 0, 0}));
  gate.open.Set();
  EXPECT_TRUE(pool->WaitForIdle(patience));
  pool->Stop();
  EXPECT_TRUE(debug.text().starts_with(
      "(!) Thread runaway with exception EStructuredException:\n"
      "Text: Access Violation (read from 0x0)\nCode: -1073741819 (0xc0000005)\nAddress: "))
      << debug.text();
}

TEST(ThreadPool, LastWorkerIsReplacedWhileJobsWait) {
  DebugText debug;
  TestPool const pool(CreateNewThreadPool(1, 0));
  Gate gate;
  int runs = 0;
  for (int i = 0; i < 3; ++i)
    pool->AddJob(job([&] {
      gate.open.WaitForSignal();
      ++runs;
      throw 5;
    }));
  gate.open.Set();
  EXPECT_TRUE(become(pool, {0, 0, 0, 0}));
  EXPECT_EQ(runs, 3);
  EXPECT_TRUE(pool->WaitForIdle(0));
}

TEST(ThreadPool, InterruptedJobIsNotReportedAndItsWorkerStaysRegistered) {
  DebugText debug;
  {
    TestPool const pool(CreateNewThreadPool(2, 0));
    pool->AddJob(job([] { throw EThreadInterrupt(); }));
    ASSERT_TRUE(become(pool, {1, 1, 0, 0}));
    EXPECT_FALSE(pool->WaitForIdle(0));
    pool->AddJob(job([] {}));
    EXPECT_TRUE(become(pool, {1, 2, 0, 1}));
    EXPECT_FALSE(pool->WaitForIdle(0));
  }
  EXPECT_EQ(debug.text(), "");
}

TEST(ThreadPool, CancelledTaskGivesItsWorkerBack) {
  long const before = open_handles();
  {
    TestPool const pool(CreateNewThreadPool(1, 0));
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
    EXPECT_TRUE(become(pool, {1, 1, 0, 1}));
    EXPECT_FALSE(pool->WaitForIdle(0));
  }
  // The handle of the thread that was interrupted stays open.
  EXPECT_TRUE(open_handles_fall_to(before + 1));
  EXPECT_GT(open_handles(), before);
}

// The pool has one worker, which the interruption would meet in the next task.
TEST(ThreadPool, TaskThatEndsWhileItIsCancelledLeavesTheNextOneAlone) {
  TestPool const pool(CreateNewThreadPool(1, 1));
  std::minstd_rand random(7);
  auto const compute = [](unsigned rounds) {
    while (rounds-- != 0) YieldProcessor();
  };
  for (int i = 0; i < 60; ++i) {
    std::atomic<bool> begun = false, go_on = false, done = false;
    auto const task = pool->AddJob([&, rounds = random() % 3'000] {
      begun = true;
      while (!go_on) YieldProcessor();
      compute(rounds);
    });
    auto const next = pool->AddJob([&] { done = true; });
    while (!begun) ::Sleep(0);
    go_on = true;
    compute(random() % 3'000);
    task->Cancel();
    ASSERT_TRUE(next->WaitForFinish(5'000)) << i;
    ASSERT_TRUE(done && !next->IsException()) << i;
  }
}

TEST(ThreadPool, WorkThatSwallowsAnInterruptionCostsNoOtherTaskItsWorker) {
  TestPool const pool(CreateNewThreadPool(1, 1));
  TEvent never;
  auto const swallow = [&] {
    try {
      never.WaitForSignal();
    } catch (EThreadInterrupt const&) {
    }
  };
  SmartPtr<IThreadTask> resigning;
  TEvent made;
  auto const task = pool->AddJob(swallow);
  task->WaitForStart(-1);
  ULONGLONG const begin = GetTickCount64();
  task->Cancel();
  EXPECT_LT(GetTickCount64() - begin, 4'000u);
  resigning = pool->AddJob([&] {
    made.WaitForSignal();
    resigning->Cancel();
  });
  made.Set();
  EXPECT_TRUE(resigning->WaitForFinish(patience) && resigning->IsException());
  EXPECT_TRUE(pool->AddJob([] {})->WaitForFinish(patience));
  resigning.reset();
}

TEST(ThreadPool, StopEndsIdleAndBusyWorkersAndDropsTheQueue) {
  DebugText debug;
  long const before = open_handles();
  {
    TestPool const pool(CreateNewThreadPool(2, 2));
    HeldWorker idle(pool), busy(pool);
    auto const thread_of = [](HeldWorker& worker) -> THandle {
      return dynamic_cast<TThreadClass&>(*std::exchange(worker.context, nullptr));
    };
    THandle const threads[] = {thread_of(idle), thread_of(busy)};
    idle.go_on.Set();
    ASSERT_TRUE(become(pool, {1, 2, 0, 1}));
    pool->Stop();
    for (auto const& thread : threads) EXPECT_TRUE(signaled_within(thread, 0));
    // What was interrupted stays counted.
    EXPECT_EQ(counts_of(pool), (PoolCounts{1, 0, 0, 0}));

    EXPECT_FALSE(pool->AddJob(job([] {})));
    EXPECT_EQ(counts_of(pool), (PoolCounts{2, 0, 1, 0}));
    pool->SetLimits(1, 0, 0);
    EXPECT_TRUE(become(pool, {1, 1, 0, 1}));
  }
  EXPECT_EQ(debug.text(), "");
  EXPECT_TRUE(open_handles_fall_to(before));
}

