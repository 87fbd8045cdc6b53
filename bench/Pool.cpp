#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <thread>

#include "bench/Rows.h"
#include "bench/Threads.h"
#include "velt/threads/ThreadPool.h"
#include "velt/threads/ThreadTask.h"

namespace bench {
namespace {

constexpr int burst = 10'000;

// What lives as long as the process, threads included.
template <class T>
T& lasting() {
  static auto& object = *new T;
  return object;
}

struct EmptyJob : IThreadJob {
  void Run(SmartPtr<IThreadContext> const&) override {}
};

template <int workers>
struct Pool {
  SmartPtr<IThreadPool> pool = CreateNewThreadPool(workers, workers);
  SmartPtr<IThreadJob> empty = MakeCounted<EmptyJob>();
};

void hand_to_pool() {
  auto& [pool, empty] = lasting<Pool<1>>();
  pool->AddJob(empty);
  pool->WaitForIdle(-1);
}

// A thread that answers each count of a semaphore with a manual event.
struct Echo {
  Echo() {
    std::thread([this] {
      for (;;) {
        WaitForSingleObjectEx(semaphore, INFINITE, TRUE);
        SetEvent(event);
      }
    }).detach();
  }
  HANDLE semaphore = CreateSemaphoreW(nullptr, 0, 1, nullptr);
  HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
};

void hand_to_thread() {
  auto& echo = lasting<Echo>();
  ResetEvent(echo.event);
  ReleaseSemaphore(echo.semaphore, 1, nullptr);
  WaitForSingleObjectEx(echo.event, INFINITE, TRUE);
}

// A pass is a burst.
template <int workers>
void burst_of_jobs() {
  auto& [pool, empty] = lasting<Pool<workers>>();
  for (int i = 0; i != burst; ++i) pool->AddJob(empty);
  pool->WaitForIdle(-1);
}

void burst_of_semaphore_pairs() {
  static HANDLE const semaphore = CreateSemaphoreW(nullptr, 0, burst, nullptr);
  LONG previous;
  for (int i = 0; i != burst; ++i) {
    ReleaseSemaphore(semaphore, 1, &previous);
    WaitForSingleObjectEx(semaphore, INFINITE, TRUE);
  }
}

void burst_on_platform() {
  static PTP_WORK const work =
      CreateThreadpoolWork([](PTP_CALLBACK_INSTANCE, void*, PTP_WORK) {}, nullptr, nullptr);
  for (int i = 0; i != burst; ++i) SubmitThreadpoolWork(work);
  WaitForThreadpoolWorkCallbacks(work, FALSE);
}

// A pass is 16,000 jobs, submitted by eight threads at once to four workers.
constexpr int submitters = 8, jobs_of_each = 2'000, workers_of_many = 4;

void submit_by_many(std::uint64_t count) {
  for (; count != 0; --count) {
    on_threads(submitters, [](int, std::uint64_t jobs) {
      auto& [pool, empty] = lasting<Pool<workers_of_many>>();
      for (; jobs != 0; --jobs) pool->AddJob(empty);
    }, jobs_of_each);
    lasting<Pool<workers_of_many>>().pool->WaitForIdle(-1);
  }
}

struct PlatformPool {
  PlatformPool() {
    InitializeThreadpoolEnvironment(&environment);
    PTP_POOL const pool = CreateThreadpool(nullptr);
    SetThreadpoolThreadMaximum(pool, workers_of_many);
    SetThreadpoolCallbackPool(&environment, pool);
    work = CreateThreadpoolWork([](PTP_CALLBACK_INSTANCE, void*, PTP_WORK) {}, nullptr,
                                &environment);
  }
  TP_CALLBACK_ENVIRON environment;
  PTP_WORK work;
};

void submit_by_many_to_platform(std::uint64_t count) {
  for (; count != 0; --count) {
    on_threads(submitters, [](int, std::uint64_t jobs) {
      for (; jobs != 0; --jobs) SubmitThreadpoolWork(lasting<PlatformPool>().work);
    }, jobs_of_each);
    WaitForThreadpoolWorkCallbacks(lasting<PlatformPool>().work, FALSE);
  }
}

// The platform only counts how often one work was submitted. This gives it jobs of
// their own, and keeps count of them.
struct PlatformJobs {
  std::atomic<int> left = 0;
  HANDLE all_done = CreateEventW(nullptr, FALSE, FALSE, nullptr);
};

void CALLBACK run_platform_job(PTP_CALLBACK_INSTANCE, void* argument) {
  SmartPtr<IThreadJob> const job = static_cast<IThreadJob*>(argument);
  job->Run(nullptr);
  auto& jobs = lasting<PlatformJobs>();
  if (--jobs.left == 0) SetEvent(jobs.all_done);
}

void submit_jobs_to_platform(std::uint64_t count) {
  auto& jobs = lasting<PlatformJobs>();
  for (; count != 0; --count) {
    jobs.left = submitters * jobs_of_each;
    on_threads(submitters, [](int, std::uint64_t left) {
      auto const job = lasting<Pool<workers_of_many>>().empty.get();
      for (; left != 0; --left)
        if (!TrySubmitThreadpoolCallback(run_platform_job, job,
                                         &lasting<PlatformPool>().environment))
          abort();
    }, jobs_of_each);
    WaitForSingleObject(jobs.all_done, INFINITE);
  }
}

// Arithmetic, as much as fills 50 microseconds where nothing else runs.
void compute() {
  constexpr auto length = 50e-6;
  static auto const rounds = [] {
    auto const run = [](std::uint64_t count) {
      LARGE_INTEGER begin, end, frequency;
      QueryPerformanceFrequency(&frequency);
      QueryPerformanceCounter(&begin);
      std::uint64_t value = 1;
      for (; count != 0; --count) keep(value = value * 6364136223846793005u + 1);
      QueryPerformanceCounter(&end);
      return static_cast<double>(end.QuadPart - begin.QuadPart) /
             static_cast<double>(frequency.QuadPart);
    };
    constexpr std::uint64_t trial = 100'000;
    double best = 1;
    for (int i = 0; i < 20; ++i) best = std::min(best, run(trial));
    return static_cast<std::uint64_t>(length / best * trial);
  }();
  std::uint64_t value = 1;
  for (auto count = rounds; count != 0; --count) keep(value = value * 6364136223846793005u + 1);
}

constexpr int jobs_at_once = 200;

struct ComputingJob : IThreadJob {
  void Run(SmartPtr<IThreadContext> const&) override { compute(); }
};

template <int workers>
void share_by_pool() {
  auto& pool = lasting<Pool<workers>>().pool;
  static SmartPtr<IThreadJob> const job = MakeCounted<ComputingJob>();
  for (int i = 0; i < jobs_at_once; ++i) pool->AddJob(job);
  pool->WaitForIdle(-1);
}

// The same work by as many threads as can run at once, each of which knows its
// share from the first.
template <int workers>
void share_ideally(std::uint64_t count) {
  static int const threads =
      std::min(workers, static_cast<int>(std::thread::hardware_concurrency()));
  for (; count != 0; --count)
    on_threads(threads, [](int, std::uint64_t jobs) {
      for (; jobs != 0; --jobs) compute();
    }, static_cast<std::uint64_t>(jobs_at_once / threads));
}

struct OpenTask : TThreadTask {
  void Run(SmartPtr<IThreadContext> const&) override {}
  using TThreadTask::TaskFinished;
  using TThreadTask::TaskStarted;
};

void pass_through_task() {
  auto& task = input(lasting<OpenTask>());
  task.TaskStarted();
  task.TaskFinished();
  task.WaitForFinish(-1);
}

void pass_through_events() {
  static HANDLE const started = CreateEventW(nullptr, TRUE, FALSE, nullptr),
                      finished = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  SetEvent(started);
  SetEvent(finished);
  WaitForSingleObjectEx(finished, INFINITE, TRUE);
}

}  // namespace

std::vector<Row> pool_rows() {
  return {
      {"pool_hand_off", loop([] { hand_to_pool(); }),
       {{"semaphore and event", 0.9, loop([] { hand_to_thread(); })}}},

      {"pool_burst", loop([] { burst_of_jobs<1>(); }),
       {{"a raw semaphore pair", 0.05, loop([] { burst_of_semaphore_pairs(); })}}},

      {"pool_burst_platform", loop([] { burst_of_jobs<1>(); }),
       {{"the platform's pool", 0.8, loop([] { burst_on_platform(); })}}},

      {"pool_submit_8", submit_by_many,
       {{"the platform's pool", 1.0, submit_by_many_to_platform},
        {"with a job each", no_goal, submit_jobs_to_platform}}},

      {"pool_scale_2", loop([] { share_by_pool<2>(); }),
       {{"an even share each", 1.05, share_ideally<2>}}},

      {"pool_scale_8", loop([] { share_by_pool<8>(); }),
       {{"an even share each", 1.05, share_ideally<8>}}},

      {"task_wait", loop([] { pass_through_task(); }),
       {{"the raw events", 1.15, loop([] { pass_through_events(); })}}},
  };
}

}  // namespace bench
