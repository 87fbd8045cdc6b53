// TThreadClass: a thread as an object. Derive from it and put the work into
// ThreadBody(); StartThread() runs it on a thread of its own. There faults of the
// processor are exceptions, some stack is kept in reserve for an overflow, and an
// exception that nobody catches is written to the stream Debug.
//
// A waiting thread can be interrupted: EThreadInterrupt comes out of its wait,
// the stack unwinds, and the thread ends without a word. docs/threads.md tells
// how to write a body for that, and what a body must never do.
#pragma once

#include <atomic>
#include <string>

#include "velt/base/Export.h"
#include "velt/threads/Thread.h"

// Times are milliseconds; 0xFFFFFFFF means no limit. Failed platform calls throw
// ESystemException. All waits are alertable: they throw what a queued call throws,
// such as an interruption of the calling thread.
//
// Call the operations on other threads than the one they act on, unless they say
// otherwise. The handle has no lock: StartThread() beside any other
// operation on the same object is not supported, and the body must not use its
// own object's handle until StartThread() has returned.
class VELT_API TThreadClass : public TThread {
public:
  TThreadClass() noexcept;

  // The copy refers to the same thread and has the interruption state as it
  // stands now.
  TThreadClass(TThreadClass const& other);
  TThreadClass& operator=(TThreadClass const& other);

  // The thread's work. An exception that leaves it ends this thread only.
  virtual void ThreadBody() = 0;

  // Starts a thread, again if there was one before. The handle held then is
  // overwritten and not closed.
  virtual void StartThread();

  // Waits for the end of the thread and kills it when the time is up; does
  // nothing without a thread. It does not ask the thread to stop, and a queued
  // call that runs meanwhile ends the wait without a kill. The handle stays.
  virtual void StopThread(unsigned int timeoutMs);

  // As TThread's.
  virtual void SuspendThread();
  virtual void ResumeThread();
  virtual void SetThreadPriority(int priority);

  // Gives the thread `waitMs` to end by itself, then interrupts it, and then calls
  // StopThread(stopMs). If no body runs, the object never runs one again instead.
  // Throws ESystemException with code 31 if the thread ends just before the
  // interruption is queued.
  //
  // On the calling thread's own object the interruption comes out of here, if
  // `waitMs` has a limit.
  virtual void InterruptThread(unsigned int waitMs, unsigned int stopMs);

  // The thread's stack as SymGetStackTrace writes it, outermost frame first. Empty
  // for a thread that has ended, and for one that somebody else has suspended; the
  // latter must then be resumed once more than before. Stops the thread meanwhile,
  // so never call it for the calling thread.
  virtual std::string GetCurrentStack() const;

  // Called on the thread after it wrote a line about an exception; not after an
  // interruption. Does nothing here. Nobody catches what it throws.
  virtual void OnException();

protected:
  // Waits a second for the end of the thread and kills it then, unless a queued
  // call has ended the wait; closes the handle. The derived part of the object is
  // gone already, so the thread must not use it any more. While an exception
  // unwinds the stack, the wait is not alertable.
  ~TThreadClass() noexcept(false);

  // Runs the body under the last handler, unless an interruption came first.
  virtual void DynamicThreadEntry();
  static unsigned int StaticThreadEntry(void* object);

  // The interruption itself, on the calling thread: throws EThreadInterrupt if
  // the object's body runs, and asks that the next one be skipped if not. The
  // second form is for QueueUserAPC, with the address of the TThreadClass.
  void ThrowEThreadInterrupt();
  static void ThrowEThreadInterrupt(unsigned __int64 object);

  // Changed by atomic operations only.
  //
  //   Idle to Running     the entry, before the body
  //   Running to Idle     the entry, after the body, however that ended
  //   any to Requested    InterruptThread() that did not find Running, and an
  //                       interruption that arrives while no body runs
  //
  // InterruptRequested stays for good, and the entry skips the body then.
  enum interrupt_state : int { Idle = 0, Running = 1, InterruptRequested = 2 };
  // An interrupt_state.
  std::atomic<int> InterruptState = Idle;

  // The request of InterruptThread(), without its waits.
  void ask_to_end();

  // Whether an interruption was thrown into the body. If the body has swallowed it,
  // somebody still waits for its end.
  bool interruption_came() const noexcept { return interrupted; }

private:
  void body_has_ended() noexcept;

  std::atomic<bool> interrupted = false;
};
