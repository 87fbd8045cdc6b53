#include "velt/threads/ThreadContext.h"

#include <windows.h>

#include <utility>

#include "velt/exceptions/ExceptionFamily.h"
#include "velt/base/LibraryReferenceInternal.h"

namespace {

// Milliseconds that a thread has to end by itself, to obey an interruption, and to
// be gone after a kill.
constexpr unsigned int grace = 2000, obedience = 5000, death = 1000;

}  // namespace

SmartPtr<IThreadContext> CreateNewThreadContext(SmartPtr<IThreadOwner> owner) {
  return SmartPtr<IThreadContext>(new TThreadContext(std::move(owner)));
}

TThreadContext::TThreadContext(SmartPtr<IThreadOwner> owner) noexcept : Owner(std::move(owner)) {}

// Throws nothing, as the release of a SmartPtr must not. Leaves the base no handle
// and so nothing to wait for.
TThreadContext::~TThreadContext() noexcept {
  if (!IsValidHandle()) return;
  if (is_own_thread()) {
    if (destroyed) *destroyed = true;
  } else if (!velt::detail::library_unloads()) {
    end_thread();
  }
  ::CloseHandle(DetachHandle());
}

void TThreadContext::end_thread() noexcept {
  if (::WaitForSingleObjectEx(handle, grace, FALSE) != WAIT_TIMEOUT) return;
  try {
    ask_to_end();
  } catch (ESystemException const&) {
    // It has just ended, or is killed below.
  }
  if (::WaitForSingleObjectEx(handle, obedience, FALSE) != WAIT_TIMEOUT) return;
  ::TerminateThread(handle, 0);
  ::WaitForSingleObjectEx(handle, death, FALSE);
}

bool TThreadContext::is_own_thread() const noexcept {
  return GetThreadId(handle) == GetCurrentThreadId();
}

// A thread that is about to end refuses queued calls a moment before its handle is
// signalled. The lock is for two that interrupt the worker: without it, one could
// hit the thread that the other has just started.
void TThreadContext::Interrupt() {
  TLock const guard(steering);
  try {
    InterruptThread(0, obedience);
  } catch (ESystemException const&) {
    if (WaitForSingleObject(obedience, TRUE) == WAIT_TIMEOUT) throw;
  }
}

void TThreadContext::Restart() {
  IThreadContext& self = *this;
  self.Interrupt();
  self.Start();
}

void TThreadContext::Suspend() { TThreadClass::SuspendThread(); }
void TThreadContext::Resume() { TThreadClass::ResumeThread(); }
void TThreadContext::SetPriority(int priority) { TThreadClass::SetThreadPriority(priority); }
void TThreadContext::Start() { StartThread(); }

void TThreadContext::SuspendThread() { Suspend(); }
void TThreadContext::ResumeThread() { Resume(); }
void TThreadContext::SetThreadPriority(int priority) { SetPriority(priority); }

void TThreadContext::StartThread() {
  TLock const guard(steering);
  if (retired) return;
  velt::detail::hold_library();
  try {
    TThreadClass::StartThread();
  } catch (...) {
    velt::detail::release_library();
    throw;
  }
}

void TThreadContext::DynamicThreadEntry() {
  TThreadClass::DynamicThreadEntry();
  velt::detail::leave_library_and_end_run_time_thread();
}

std::string TThreadContext::describe() const { return GetCurrentStack(); }

// Null if the destructor of the context has begun; it waits for this thread.
SmartPtr<IThreadContext> TThreadContext::own_reference() noexcept {
  if (!refs.increment_unless_zero()) return nullptr;
  SmartPtr<IThreadContext> reference(this);
  refs.decrement();
  return reference;
}

// An exception that ends the worker is reported while it passes. To catch it and
// throw it on would be a second throw, for which the library makes a second dump,
// without the frames that matter. What the owner throws meanwhile gives way to it.
class TThreadContext::report_of_failure {
public:
  report_of_failure(TThreadContext& its_context, SmartPtr<IThreadJob>& its_job)
      : context(its_context), job(its_job) {}
  report_of_failure(report_of_failure const&) = delete;
  report_of_failure& operator=(report_of_failure const&) = delete;
  ~report_of_failure() {
    if (!is_due) return;
    try {
      if (job) context.report_job(job);
      context.report_end();
    } catch (...) {
    }
  }

  void leave_out() { is_due = false; }

private:
  TThreadContext& context;
  SmartPtr<IThreadJob>& job;
  bool is_due = true;
};

void TThreadContext::ThreadBody() {
  SmartPtr<IThreadJob> job;
  {
    report_of_failure report(*this, job);
    try {
      run_jobs(job);
    } catch (EThreadInterrupt const&) {
      report.leave_out();
      throw;
    }
    report.leave_out();
  }
  report_end();
}

void TThreadContext::run_jobs(SmartPtr<IThreadJob>& job) {
  while (!retired && (job = Owner->GetJob())) {
    run_job(job);
    report_job(job);
    // The job has swallowed it, and the sender waits for the end of this thread.
    if (interruption_came()) throw EThreadInterrupt();
  }
}

void TThreadContext::run_job(SmartPtr<IThreadJob>& job) {
  struct own_reference_while_running {
    ~own_reference_while_running() { self.drop_own_reference(context, job); }
    TThreadContext& self;
    SmartPtr<IThreadJob>& job;
    SmartPtr<IThreadContext> context;
  } own{*this, job, own_reference()};
  // The owner has dropped the worker and waits for no report.
  if (!own.context) throw EThreadInterrupt();
  job->Run(own.context);
}

void TThreadContext::report_job(SmartPtr<IThreadJob>& job) {
  Owner->JobFinished(job);
  job.reset();
}

void TThreadContext::drop_own_reference(SmartPtr<IThreadContext>& context,
                                        SmartPtr<IThreadJob>& job) {
  outlive_object([&](IThreadOwner&, bool const& is_destroyed) {
    context.reset();
    if (is_destroyed) job.reset();
  });
}

void TThreadContext::report_end() {
  auto context = own_reference();
  if (!context) return;
  outlive_object([&](IThreadOwner& owner, bool const&) {
    owner.ThreadFinished(std::move(context));
  });
}

// The step may release the last reference to this object. Then there is no way back
// into it: the thread ends here, and an exception of the step with it.
template <class Step>
void TThreadContext::outlive_object(Step step) {
  bool is_destroyed = false;
  destroyed = &is_destroyed;
  SmartPtr<IThreadOwner> owner(Owner);
  try {
    step(*owner, is_destroyed);
  } catch (...) {
    if (!is_destroyed) {
      destroyed = nullptr;
      throw;
    }
  }
  if (!is_destroyed) {
    destroyed = nullptr;
    return;
  }
  owner.reset();
  velt::detail::leave_library_and_end_run_time_thread();
}
