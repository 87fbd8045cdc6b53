// Pools and workers with the platform's waits in the hands of the test. The
// sources are compiled into this program, so that their limits can be told to
// have passed, and calls be made to fail.
#include <gtest/gtest.h>
#include <process.h>
#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <utility>

#include "tests/support/OpenHandles.h"
#include "tests/support/PlatformCalls.h"
#include "tests/support/Expect.h"
#include "tests/threads/PoolSupport.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/Semaphore.h"
#include "velt/threads/ThreadContext.h"
#include "velt/threads/ThreadPoolInternal.h"
#include "velt/threads/ThreadTask.h"

using namespace velt_test;

// The queue's blocks come from here.
static std::atomic<bool> no_memory = false;
void* operator new(std::size_t size) {
  void* const block = no_memory ? nullptr : std::malloc(size);
  if (!block) throw std::bad_alloc();
  return block;
}

VELT_WATCH(CreateEventW)
VELT_WATCH(CreateSemaphoreW)
VELT_WATCH(_beginthreadex)

namespace {

// While one lives, the wait of an idle worker ends when its object is signalled, or
// when the test says that the time is over.
struct IdleLimit {
  IdleLimit() { current = this; }
  IdleLimit(IdleLimit const&) = delete;
  ~IdleLimit() { current = nullptr; }

  void pass() { passed.Unlock(); }

  static constexpr DWORD length = 10'000;
  static inline IdleLimit* current = nullptr;
  std::atomic<int> begun = 0;  // waits
  TSemaphore passed{1'000, 0};
};

}  // namespace

extern "C" {
extern decltype(&WaitForSingleObjectEx) __real___imp_WaitForSingleObjectEx;
static DWORD WINAPI wait(HANDLE object, DWORD time, BOOL alertable) {
  if (IdleLimit* const limit = IdleLimit::current; limit && time == limit->length) {
    ++limit->begun;
    HANDLE const both[] = {object, limit->passed};
    DWORD const result = WaitForMultipleObjectsEx(2, both, FALSE, INFINITE, alertable);
    return result == WAIT_OBJECT_0 + 1 ? WAIT_TIMEOUT : result;
  }
  return __real___imp_WaitForSingleObjectEx(object, time, alertable);
}
extern decltype(&WaitForSingleObjectEx) __wrap___imp_WaitForSingleObjectEx;
decltype(&WaitForSingleObjectEx) __wrap___imp_WaitForSingleObjectEx = wait;
}

namespace {

struct PoolClock : ::testing::Test {
  ~PoolClock() noexcept override {}

  // As many idle workers.
  void make_idle(TestPool const& pool, int count) {
    Gate gate;
    for (int i = 0; i < count; ++i) {
      pool->AddJob(gate.job());
      ASSERT_TRUE(eventually([&] { return gate.inside == i + 1; }));
    }
    gate.open.Set();
    ASSERT_TRUE(become(pool, {0, count, 0, count}));
  }

  IdleLimit idle;
};

}  // namespace

// Above a lowered maximum too.
TEST_F(PoolClock, IdleWorkersLeaveAfterTenSecondsDownToTheMinimum) {
  for (int const minimum : {0, 1, 2}) {
    TestPool const pool(CreateNewThreadPool(4, 3));
    make_idle(pool, 3);
    pool->SetLimits(1, minimum, 0);
    for (int left = 2; left >= minimum; --left) {
      idle.pass();
      EXPECT_TRUE(become(pool, {0, left, 0, left}));
    }
    if (minimum == 0) continue;
    // In vain.
    int const before = idle.begun;
    idle.pass();
    EXPECT_TRUE(eventually([&] { return idle.begun > before; }));
    EXPECT_TRUE(become(pool, {0, minimum, 0, minimum}));
  }
}

TEST_F(PoolClock, CountThatAClearedQueueLeftDoesNotRefuseAJob) {
  struct Pool : TThreadPool {
    Pool() : TThreadPool(1, 1, 0, 1) {}
    ~Pool() noexcept override {}
    SmartPtr<IThreadJob> PopJob() override {
      popping.Set();
      go_on.WaitForSignal();
      return TThreadPool::PopJob();
    }
    TEvent popping, go_on{true, false};
  };
  TestPool const pool(MakeCounted<Pool>());
  auto& made = dynamic_cast<Pool&>(*pool.operator->());
  pool->AddJob(job([] { ADD_FAILURE() << "was dropped"; }));
  made.popping.WaitForSignal();
  pool->ClearQueue();
  Gate gate;
  pool->AddJob(gate.job());
  made.go_on.Set();
  ASSERT_TRUE(become(pool, {1, 1, 0, 0}));
  pool->AddJob(gate.job());
  gate.open.Set();
  EXPECT_TRUE(become(pool, {0, 1, 0, 1}));
  EXPECT_EQ(gate.inside, 2);
}

// A report that waits for the inner word of the lock can be interrupted there.
TEST(PoolInterruption, LeavesTheCountsOfThePoolRight) {
  struct InnerLock : TMultiLock {
    using TMultiLock::inner_unlock;
    void take() { inner_lock(own_id()); }
  };
  struct Pool : TThreadPool {
    Pool() : TThreadPool(1, 1, 0, 10) {}
    ~Pool() noexcept override {}
    SmartPtr<IThreadJob> PopJob() override {
      if (std::exchange(is_interrupted, false)) throw EThreadInterrupt();
      return TThreadPool::PopJob();
    }
    using TThreadPool::QueueLock;
    using TThreadPool::Threads;
    bool is_interrupted = true;
  };
  TestPool const pool(MakeCounted<Pool>());
  auto& made = dynamic_cast<Pool&>(*pool.operator->());
  Gate gate;
  pool->AddJob(gate.job());
  auto const worker = *made.Threads.begin();
  ASSERT_TRUE(signaled_within(dynamic_cast<TThreadContext&>(*worker), patience));
  worker->Start();
  ASSERT_TRUE(eventually([&] { return gate.inside == 1; })) << "the job's count was lost";

  auto& lock = static_cast<InnerLock&>(made.QueueLock);
  lock.take();
  gate.open.Set();
  Worker interrupter([&] { worker->Interrupt(); });
  interrupter.StartThread();
  ::Sleep(100);
  lock.inner_unlock();
  EXPECT_TRUE(interrupter.ended_within(patience));
  EXPECT_EQ(counts_of(pool), (PoolCounts{0, 1, 0, 0}));
}

TEST(PoolFailures, ResourcesOfAPoolAndATaskAreMadeInOrderAndNoneIsLost) {
  struct Task : TThreadTask {
    void Run(SmartPtr<IThreadContext> const&) override {}
  };
  struct {
    char const* calls;
    void (*run)();
  } const rows[] = {
      {"CreateSemaphoreW(none, 0, 7, none)CreateEventW(none, 1, 1, none)",
       [] { CreateNewThreadPool(1, 0, 0, 7); }},
      {"CreateEventW(none, 1, 0, none)CreateEventW(none, 1, 0, none)", [] { MakeCounted<Task>(); }},
  };
  for (auto const& [calls, run] : rows) {
    long const before = open_handles();
    for (char const* const failing : {"CreateSemaphoreW", "CreateEventW", ""}) {
      Watch watch(failing);
      bool const fails = *failing && std::string(calls).find(failing) != std::string::npos;
      EXPECT_EQ(system_code(run), fails ? injected_code : -1);
      EXPECT_TRUE(fails || watch.calls == calls) << watch.calls;
    }
    EXPECT_EQ(open_handles(), before);
  }
}

TEST(PoolFailures, WorkerThatCannotStartIsToldButTheJobStaysQueued) {
  TestPool const pool(CreateNewThreadPool(2, 0));
  std::atomic<int> runs = 0;
  auto const counting = job([&] { ++runs; });
  {
    Watch watch("_beginthreadex");
    EXPECT_EQ(system_code([&] { pool->AddJob(counting); }), injected_code);
  }
  EXPECT_EQ(counts_of(pool), (PoolCounts{1, 1, 1, 0}));
  pool->AddJob(counting);
  EXPECT_TRUE(pool->WaitForIdle(patience));
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(count_of(pool, "Threads"), 2);
}

TEST(PoolFailures, JobForWhichTheQueueHasNoMemoryIsNotCounted) {
  TestPool const pool(CreateNewThreadPool(0, 0));
  auto const nothing = job([] {});
  int added = 0;
  no_memory = true;
  EXPECT_THROW(
      for (; added < 1'000; ++added) pool->AddJob(nothing), std::bad_alloc);
  no_memory = false;
  EXPECT_EQ(counts_of(pool), (PoolCounts{added, 0, added, 0}));
}
