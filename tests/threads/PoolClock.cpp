// Pools and workers with the platform's waits in the hands of the test. The
// sources are compiled into this program, so that their limits can be told to
// have passed, and calls be made to fail.
#include <gtest/gtest.h>
#include <process.h>
#include <windows.h>

#include <atomic>
#include <functional>
#include <string>

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

VELT_WATCH(CreateEventW)
VELT_WATCH(CreateSemaphoreW)
VELT_WATCH(_beginthreadex)

namespace {

// A wait of this length ends when its object is signalled, or when the test says
// that the time is over.
struct Limit {
  explicit Limit(DWORD its_length) : length(its_length) {}

  void pass() { passed.Unlock(); }

  DWORD length;
  std::atomic<int> begun = 0;  // waits
  TEvent first{true, false};   // signalled by the first of them
  TSemaphore passed{1'000, 0};
};

Limit* limits[3] = {};

struct Limits {
  Limits() { limits[0] = &idle, limits[1] = &grace, limits[2] = &obedience; }
  ~Limits() {
    for (auto& each : limits) each = nullptr;
  }
  Limit idle{10'000}, grace{2'000}, obedience{5'000};
};

}  // namespace

extern "C" {
extern decltype(&WaitForSingleObjectEx) __real___imp_WaitForSingleObjectEx;
static DWORD WINAPI wait(HANDLE object, DWORD time, BOOL alertable) {
  for (Limit* const limit : limits) {
    if (!limit || limit->length != time) continue;
    ++limit->begun;
    limit->first.Set();
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

  Limits time;
};

// Workers of its own, which end under the hands of the test.
struct ContextClock : ::testing::Test {
  ~ContextClock() noexcept override {}

  struct Owner : IThreadOwner {
    SmartPtr<IThreadJob> GetJob() override { return get_job(); }
    void ThreadFinished(SmartPtr<IThreadContext>) override { ++reports; }
    void JobFinished(SmartPtr<IThreadJob>) override { ++reports; }

    std::function<SmartPtr<IThreadJob>()> get_job;
    std::atomic<int> reports = 0;
  };

  // Makes a worker that asks for its first job in `get_job`, and drops it there.
  void drop(std::function<SmartPtr<IThreadJob>()> get_job) {
    TEvent inside;
    time.grace.first.Reset();
    owner->get_job = [&] {
      inside.Set();
      return get_job();
    };
    auto context = CreateNewThreadContext(owner);
    context->Start();
    inside.WaitForSignal();
    THandle const thread(static_cast<void*>(dynamic_cast<TThreadContext&>(*context)));
    context.reset();
    EXPECT_TRUE(signaled_within(thread, 0));
    EXPECT_EQ(owner.use_count(), 1);
    EXPECT_EQ(owner->reports, 0);
    DWORD code = 12345;
    GetExitCodeThread(thread, &code);
    EXPECT_EQ(code, 0u);
  }

  Limits time;
  SmartPtr<Owner> owner = MakeCounted<Owner>();
};

}  // namespace

// Above a lowered maximum too.
TEST_F(PoolClock, IdleWorkersLeaveAfterTenSecondsDownToTheMinimum) {
  for (int const minimum : {0, 1, 2}) {
    TestPool const pool(CreateNewThreadPool(4, 3));
    make_idle(pool, 3);
    pool->SetLimits(1, minimum, 0);
    for (int left = 2; left >= minimum; --left) {
      time.idle.pass();
      EXPECT_TRUE(become(pool, {0, left, 0, left}));
    }
    if (minimum == 0) continue;
    // In vain.
    int const before = time.idle.begun;
    time.idle.pass();
    EXPECT_TRUE(eventually([&] { return time.idle.begun > before; }));
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

TEST_F(ContextClock, DroppedWorkerIsInterruptedAfterItsGraceAndKilledIfItDoesNotObey) {
  static std::atomic<bool> stop;
  TEvent never;
  for (bool const obeys : {true, false}) {
    time.grace.pass();
    if (!obeys) time.obedience.pass();
    drop([&]() -> SmartPtr<IThreadJob> {
      if (obeys) never.WaitForSignal();
      while (!stop) YieldProcessor();
      return nullptr;
    });
  }
  EXPECT_EQ(time.grace.begun, 2);
  EXPECT_EQ(time.obedience.begun, 2);
}

// While its context is being destroyed the thread must not refer to it any more.
TEST_F(ContextClock, DroppedWorkerNeitherRunsAJobNorReports) {
  auto const never = job([] { ADD_FAILURE() << "ran"; });
  for (auto const& next : {never, SmartPtr<IThreadJob>()})
    drop([&] {
      time.grace.first.WaitForSignal();
      return next;
    });
  EXPECT_EQ(never.use_count(), 1);
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
