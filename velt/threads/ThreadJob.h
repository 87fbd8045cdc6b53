// The interfaces around a pool of threads: a job, a task, which is a job that its
// submitter can follow and steer, the worker that runs them, and the owner that
// hands jobs to workers.
//
// To have work done, submit a callable or a task (ThreadPool.h, ThreadTask.h).
// Derive from IThreadJob for work that nobody asks about afterwards, and from
// IThreadOwner to hand out jobs by other rules than a pool's.
#pragma once

#include "velt/base/Export.h"
#include "velt/base/SmartPtr.h"

// A worker: one thread that asks its owner for jobs.
//
// Call the operations on other threads than the worker's own. They throw
// ESystemException if the platform refuses.
class VELT_API IThreadContext : public virtual SmartPtrObj {
public:
  ~IThreadContext() override;

  // Throws EThreadInterrupt into the worker's current or next alertable wait, and
  // returns when its thread has ended. A thread that reaches no such wait within
  // five seconds is killed.
  virtual void Interrupt() = 0;
  // Interrupt(), then Start().
  virtual void Restart() = 0;

  // Act on the worker's thread.
  virtual void Suspend() = 0;
  virtual void Resume() = 0;
  // One of the platform's THREAD_PRIORITY_... values.
  virtual void SetPriority(int priority) = 0;

  // Starts a thread that asks for jobs. The worker's earlier thread, if any, must
  // have ended; its handle stays open for good.
  virtual void Start() = 0;
};

// The unit of work.
class VELT_API IThreadJob : public virtual SmartPtrObj {
public:
  ~IThreadJob() override;

  // Called once, on the worker's thread. An exception that leaves it ends that
  // thread: an EThreadInterrupt without a report to the owner, anything else with a
  // line on the stream Debug. The submitter learns nothing.
  virtual void Run(SmartPtr<IThreadContext> const& context) = 0;
};

// A job that its submitter can follow. Any thread may call the operations while
// the job runs.
//
// Times are milliseconds; -1 means no limit. The waits and IsStarted(),
// IsFinished() and IsRunning() are alertable: they throw what a queued call throws.
// A wait returns false if the time ran out, and also if a queued call ended it.
// Failed platform calls throw ESystemException.
class VELT_API IThreadTask : public IThreadJob {
public:
  ~IThreadTask() override;

  // Has a worker begun with it?
  virtual bool IsStarted() const = 0;
  // Has it ended, or was it cancelled?
  virtual bool IsFinished() const = 0;
  virtual bool WaitForStart(int timeoutMs) const = 0;
  virtual bool WaitForFinish(int timeoutMs) const = 0;

  // Ends the task. A running one is interrupted, and its worker put back to work
  // afterwards; one that still waits in a queue is marked. The task is finished
  // then, and IsException() is true unless it had been done before.
  virtual void Cancel() = 0;

  // Act on the worker that runs the task; do nothing while none does.
  virtual void Suspend() = 0;
  virtual void Resume() = 0;
  virtual void SetPriority(int priority) = 0;

  // Did an exception end it, an interruption or Cancel() included? Ask when it has
  // finished.
  virtual bool IsException() const = 0;
  // Throws an EGeneric with the named values of that exception, whatever its class
  // was. Call it only if IsException() is true.
  [[noreturn]] virtual void RethrowException() = 0;

  // Has it started and not finished?
  virtual bool IsRunning() const = 0;
};

// Hands out jobs to workers. Workers call all operations on their own threads. An
// operation must not release the last reference to its worker, except as told
// below.
class VELT_API IThreadOwner : public virtual SmartPtrObj {
public:
  ~IThreadOwner() override;

  // The next job, or null to send the worker away. May wait for any time; make the
  // wait alertable, so that the worker can be interrupted.
  //
  // The printing part of windows.h makes a macro of the name: include windows.h
  // before this header, or undefine the macro.
  virtual SmartPtr<IThreadJob> GetJob() = 0;

  // The worker's last call, when it ends by itself and after a job threw. Keep the
  // reference beyond the call: the destructor of a context waits for its thread,
  // which makes this call. If the last reference goes within the call all the same,
  // the thread ends with the call.
  //
  // After a job threw, this and JobFinished() are called while the exception
  // unwinds the stack, and exceptions that leave them are dropped.
  virtual void ThreadFinished(SmartPtr<IThreadContext> context) = 0;

  // Called after each job, also one that threw, but not one that was interrupted.
  virtual void JobFinished(SmartPtr<IThreadJob> job) = 0;
};
