// What a pool of threads is made of, seen from outside: the job that is run, the
// task that its submitter can watch and steer, the worker that runs it, and the
// owner that hands out jobs to workers.
//
// To have work done, submit a callable or a task (ThreadPool.h, ThreadTask.h).
// Derive from IThreadJob for work that nobody asks about afterwards, and from
// IThreadOwner to give workers jobs by other rules than a pool's.
#pragma once

#include "velt/base/Export.h"
#include "velt/base/SmartPtr.h"

// A worker: one thread that asks its owner for jobs.
//
// The operations are for other threads than the worker's own; they throw
// ESystemException when the platform refuses.
class VELT_API IThreadContext : public virtual SmartPtrObj {
public:
  ~IThreadContext() override;

  // Breaks the worker out of the wait that it is in, or enters next, and returns
  // when its thread has ended. A thread that does not wait within five seconds is
  // killed.
  virtual void Interrupt() = 0;
  // Interrupt(), then Start().
  virtual void Restart() = 0;

  virtual void Suspend() = 0;
  virtual void Resume() = 0;
  // One of the platform's THREAD_PRIORITY_... values.
  virtual void SetPriority(int priority) = 0;

  // Begins to ask for jobs, on a new thread. The one before, if there was one,
  // must have ended; its handle stays open for good.
  virtual void Start() = 0;
};

// The unit of work.
class VELT_API IThreadJob : public virtual SmartPtrObj {
public:
  ~IThreadJob() override;

  // Called once, on the worker's thread. What leaves it costs the worker: an
  // EThreadInterrupt ends its thread without a report to the owner, anything
  // else ends it with a line on the stream Debug. The submitter learns nothing.
  virtual void Run(SmartPtr<IThreadContext> const& context) = 0;
};

// A job that its submitter can follow. Any thread may call the operations while
// the job runs.
//
// Times are milliseconds, -1 meaning no limit. The waits, and the questions
// IsStarted(), IsFinished() and IsRunning(), are alertable: what a queued call
// throws comes out of them. A wait is false when the time ran out, and also when
// a queued call ended it. Failed platform calls throw ESystemException.
class VELT_API IThreadTask : public IThreadJob {
public:
  ~IThreadTask() override;

  virtual bool IsStarted() const = 0;
  // Has it ended, or was it cancelled?
  virtual bool IsFinished() const = 0;
  virtual bool WaitForStart(int timeoutMs) const = 0;
  virtual bool WaitForFinish(int timeoutMs) const = 0;

  // Ends the task: a running one by interrupting its worker, which is put back
  // to work afterwards; one that still waits by marking it. It counts as
  // finished then, and as started only if it was.
  virtual void Cancel() = 0;

  // For the worker that runs the task; do nothing while none does.
  virtual void Suspend() = 0;
  virtual void Resume() = 0;
  virtual void SetPriority(int priority) = 0;

  // Did an exception end it? To be asked when it has finished.
  virtual bool IsException() const = 0;
  // Throws an EGeneric with the named values of that exception, whatever its
  // class was. Only where IsException() is true.
  [[noreturn]] virtual void RethrowException() = 0;

  virtual bool IsRunning() const = 0;
};

// Who workers work for. All operations are called on a worker's thread, and must
// not drop the last reference to it, save as told.
class VELT_API IThreadOwner : public virtual SmartPtrObj {
public:
  ~IThreadOwner() override;

  // The next job, or nothing to send the worker away. May wait for as long as it
  // likes, and should do so alertably, so that the worker can be interrupted.
  //
  // The printing part of windows.h makes a macro of the name: who implements or
  // calls this includes the platform's header first, or takes the macro away.
  virtual SmartPtr<IThreadJob> GetJob() = 0;

  // The worker's last call when it ends by itself, and after a job threw. The
  // owner should keep the reference beyond the call: the end of a context waits
  // for its thread, which this one still is. If the last reference goes within
  // the call all the same, the thread ends with the call.
  virtual void ThreadFinished(SmartPtr<IThreadContext> context) = 0;

  // After each job, also one that threw, but not one that was interrupted.
  virtual void JobFinished(SmartPtr<IThreadJob> job) = 0;
};
