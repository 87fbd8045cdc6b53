// Pools of threads. A pool runs jobs from a queue, first in, first out; it has no
// thread until the first job comes, one more for each job that finds no idle
// worker, and gives up workers that have been idle for ten seconds.
//
// Beside the platform's thread pool: a job can be any counted object, tasks can
// be watched, stopped and cancelled, the queue has a limit, and the pool can be
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

// Any thread may call the operations, except that a job must not stop its own
// pool: the interruption would come out of the call, with the pool half stopped.
// All may throw ESystemException, when the platform refuses. `describe()` tells
// the counts.
//
// Call Stop() when done with a pool: until then its workers and the pool keep
// each other alive.
class VELT_API IThreadPool : public virtual SmartPtrObj {
public:
  ~IThreadPool() override;

  // Puts the job, which must not be null, at the end of the queue, and starts a
  // worker if there are more jobs waiting than idle workers, up to the maximum.
  // True if no more jobs wait now than the pool may have threads.
  //
  // Throws EGeneric if the queue is full, with "Text" ("Thread pool overflowed"),
  // "JobQueueSize" and "ThreadsSize". If a worker cannot be started it throws
  // ESystemException; the job is in the queue then.
  virtual bool AddJob(SmartPtr<IThreadJob> job) = 0;

  // Takes all jobs out of the queue and interrupts the workers, one after the
  // other, each as by IThreadContext::Interrupt(). The pool stays, with limits of
  // 0, and only SetLimits() gets it to work again. At the end of the process,
  // when all other threads are gone, it does nothing.
  virtual void Stop() = 0;

  // How many workers there may be, and how many idle ones stay although they have
  // nothing to do. Workers above the maximum end as they finish a job; new ones
  // are started at once if jobs wait. A priority other than 0 is given to workers
  // that start from now on. Nothing starts a worker to reach the minimum.
  virtual void SetLimits(int maxTotalThreads, int minIdleThreads, int priority) = 0;

  // Waits until no job is queued or running: false when the time, in
  // milliseconds, -1 meaning no limit, ran out, or when a queued call ended the
  // wait. A job that was interrupted counts as running for good, and after
  // ClearQueue() this stays false until another job has finished.
  virtual bool WaitForIdle(int timeoutMs) = 0;

  // Drops the jobs that wait. They are not told.
  virtual void ClearQueue() = 0;

  // MakeThreadTask(), and the task put into the queue.
  template <class Work>
    requires(std::invocable<std::decay_t<Work>&> &&
             !std::convertible_to<Work &&, SmartPtr<IThreadJob>>)
  SmartPtr<IThreadTask> AddJob(Work&& work) {
    auto task = MakeThreadTask(std::forward<Work>(work));
    AddJob(SmartPtr<IThreadJob>(task));
    return task;
  }

  // The same, where that macro stands.
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

// Pools without threads. `max` and `min` as by SetLimits(), 50 and 0 where they
// are not given; `limit` is the most jobs that may wait, a million where it is
// not given. Throw ESystemException, for a limit below 1 too.
VELT_API SmartPtr<IThreadPool> CreateNewThreadPool();
VELT_API SmartPtr<IThreadPool> CreateNewThreadPool(int max, int min);
VELT_API SmartPtr<IThreadPool> CreateNewThreadPool(int max, int min, int priority);
VELT_API SmartPtr<IThreadPool> CreateNewThreadPool(int max, int min, int priority, int limit);

// The pool that all parts of the program share, made by the first call. Two first
// calls at once may get a pool each, of which one is the shared one afterwards.
//
// It is stopped when the library is unloaded, which its workers put off until
// they have left by themselves; at the end of the process they just end.
VELT_API SmartPtr<IThreadPool> GetSystemThreadPool();
