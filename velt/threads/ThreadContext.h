// TThreadContext: a worker, which runs the jobs that an owner gives it, one
// after the other, on a thread of its own. TThreadPool is the owner in the
// library; with an IThreadOwner of your own, CreateNewThreadContext() makes
// workers for it.
#pragma once

#include <atomic>
#include <string>

#include "velt/base/Export.h"
#include "velt/locks/MultiLock.h"
#include "velt/threads/ThreadClass.h"
#include "velt/threads/ThreadJob.h"

// The worker asks GetJob(), runs the job, reports JobFinished(), and asks again.
// It ends in one of three ways:
//
//   GetJob() gave nothing      ThreadFinished()
//   a job or the owner threw   no report at all, not of the job in hand either:
//   EThreadInterrupt           whoever interrupts takes the worker over, and may
//                              start it again or drop it
//   either threw anything      JobFinished() if there is a job in hand, then
//   else                       ThreadFinished(), then a line on the stream Debug
//                              and OnException()
//
// After a job that swallowed an interruption it reports JobFinished() and ends as
// in the second row. A worker that everybody has dropped ends after the job in
// hand, without a report.
//
// A worker holds a reference to the library while it has a thread: the library is
// unloaded after the last worker has ended.
class VELT_API TThreadContext final : public IThreadContext, public TThreadClass {
public:
  TThreadContext(TThreadContext const&) = delete;
  TThreadContext& operator=(TThreadContext const&) = delete;
  // Waits two seconds for the end of the thread, interrupts it then, and kills it
  // after five more; releases the owner. The waits are not alertable, so that an
  // interruption of the calling thread arrives in its next wait.
  ~TThreadContext() noexcept override;

  // InterruptThread(0, 5000), without an error if the thread ends at that moment.
  // Waits while somebody else interrupts or starts the worker.
  void Interrupt() override;
  void Restart() override;
  void Suspend() override;
  void Resume() override;
  void SetPriority(int priority) override;
  // Does nothing for a worker that its pool has dismissed.
  void Start() override;

  void ThreadBody() override;
  void StartThread() override;
  // The same as Suspend(), Resume() and SetPriority().
  void SuspendThread() override;
  void ResumeThread() override;
  void SetThreadPriority(int priority) override;

  // GetCurrentStack(): where the thread is right now.
  std::string describe() const override;

protected:
  void DynamicThreadEntry() override;

private:
  friend VELT_API SmartPtr<IThreadContext> CreateNewThreadContext(SmartPtr<IThreadOwner> owner);

  explicit TThreadContext(SmartPtr<IThreadOwner> owner) noexcept;

  SmartPtr<IThreadContext> own_reference() noexcept;
  class report_of_failure;
  void run_jobs(SmartPtr<IThreadJob>& job);
  void run_job(SmartPtr<IThreadJob>& job);
  void report_job(SmartPtr<IThreadJob>& job);
  void drop_own_reference(SmartPtr<IThreadContext>& context, SmartPtr<IThreadJob>& job);
  void report_end();
  template <class Step>
  void outlive_object(Step step);
  bool is_own_thread() const noexcept;
  void end_thread() noexcept;

  friend class TThreadTask;  // asks whether an interruption came

  // No further thread, since the pool does not know the worker any more. Somebody
  // who has just interrupted it may be about to start it again.
  friend class TThreadPool;
  void retire() noexcept { retired = true; }

  SmartPtr<IThreadOwner> Owner;
  TMultiLock steering;  // held while the worker is interrupted or started
  std::atomic<bool> retired = false;
  bool* destroyed = nullptr;  // to be set if the thread destroys its own context
};

// A worker for the owner, to which it keeps a reference. It has no thread until
// Start().
VELT_API SmartPtr<IThreadContext> CreateNewThreadContext(SmartPtr<IThreadOwner> owner);
