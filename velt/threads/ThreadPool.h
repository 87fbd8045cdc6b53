// Pools of threads. A pool runs jobs from a queue, first in, first out. It starts
// a thread for each job that finds no idle worker, the first for the first job, and
// ends workers that have been idle for ten seconds.
//
// Unlike the platform's thread pool: a job can be any counted object; a task can be
// followed, suspended and cancelled; the queue has a limit; the pool can be
// emptied, waited for and stopped.
#pragma once

#include <concepts>
#include <type_traits>
#include <utility>

#include "velt/base/Export.h"
#include "velt/threads/ThreadJob.h"
#include "velt/threads/ThreadTask.h"

// windows.h makes a macro of AddJob, whatever is included first.
#pragma push_macro("AddJob")
#undef AddJob

// Any thread may call the operations, but a job must not stop its own pool: Stop()
// would throw its own interruption there, with the pool half stopped. All may throw
// ESystemException if the platform refuses. `describe()` tells the counts.
//
// Call Stop() when done with a pool: until then its workers and the pool keep
// each other alive.
class VELT_API IThreadPool : public virtual SmartPtrObj {
public:
  ~IThreadPool() override;

  // Puts the job, which must not be null, at the end of the queue, and starts a
  // worker if more jobs wait than workers are idle, up to the maximum. True if no
  // more jobs wait now than the pool may have threads.
  //
  // Throws EGeneric if the queue is full, with "Text" ("Thread pool overflowed"),
  // "JobQueueSize" and "ThreadsSize". If a worker cannot be started it throws
  // ESystemException; the job is in the queue then.
  virtual bool AddJob(SmartPtr<IThreadJob> job) = 0;

  // Takes all jobs out of the queue and calls IThreadContext::Interrupt() on one
  // worker after the other. The pool stays, with limits of 0, and works again after
  // SetLimits(). At the end of the process, when all other threads are gone, it does
  // nothing.
  virtual void Stop() = 0;

  // How many workers there may be, and how many idle ones stay. Workers above the
  // maximum end as they finish a job; new ones are started at once if jobs wait. A
  // priority other than 0 is given to workers that start from now on. Nothing starts
  // a worker to reach the minimum.
  virtual void SetLimits(int maxTotalThreads, int minIdleThreads, int priority) = 0;

  // Waits until no job is queued or running; -1 means no limit. False if the time,
  // in milliseconds, ran out, or if a queued call ended the alertable wait. A job
  // that was interrupted counts as running for good, and after ClearQueue() this
  // stays false until another job has finished.
  virtual bool WaitForIdle(int timeoutMs) = 0;

  // Drops the jobs that wait: tasks among them stay unfinished.
  virtual void ClearQueue() = 0;

  // Makes a task by MakeThreadTask() and puts it into the queue.
  template <velt::detail::work_without_result Work>
    requires(!std::convertible_to<Work &&, SmartPtr<IThreadJob>>)
  SmartPtr<IThreadTask> AddJob(Work&& work) {
    auto task = MakeThreadTask(std::forward<Work>(work));
    AddJob(SmartPtr<IThreadJob>(task));
    return task;
  }

  // Nobody could read the result: store it in a variable of the submitter's.
  template <velt::detail::callable_work Work>
    requires(!velt::detail::work_without_result<Work> &&
             !std::convertible_to<Work &&, SmartPtr<IThreadJob>>)
  SmartPtr<IThreadTask> AddJob(Work&& its_result_would_be_lost) = delete;

  // The same where that macro is defined.
  template <class Job>
  auto AddJobA(Job&& job) {
    return AddJob(std::forward<Job>(job));
  }
  template <class Job>
  auto AddJobW(Job&& job) {
    return AddJob(std::forward<Job>(job));
  }
};

#pragma pop_macro("AddJob")

// Pools without threads. `max` and `min` are those of SetLimits(), 50 and 0 by
// default; `limit` is the most jobs that may wait, a million by default. Throw
// ESystemException, for a limit below 1 too.
VELT_API SmartPtr<IThreadPool> CreateNewThreadPool();
VELT_API SmartPtr<IThreadPool> CreateNewThreadPool(int max, int min);
VELT_API SmartPtr<IThreadPool> CreateNewThreadPool(int max, int min, int priority);
VELT_API SmartPtr<IThreadPool> CreateNewThreadPool(int max, int min, int priority, int limit);

// The pool that all parts of the program share, made by the first call. Two first
// calls at once may get a pool each, one of which is the shared one afterwards.
//
// It is stopped when the library is unloaded, after its workers have left by
// themselves; at the end of the process they just end.
VELT_API SmartPtr<IThreadPool> GetSystemThreadPool();
