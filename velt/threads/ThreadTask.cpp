#include "velt/threads/ThreadTask.h"

#include <cxxabi.h>
#include <windows.h>

#include <memory>
#include <typeinfo>

#include "velt/base/TypeName.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/faults/StackOverflowException.h"
#include "velt/threads/ThreadContext.h"

namespace {

// Milliseconds. A worker needs a few instructions from its decision to run a task to
// TaskStarted(), and Cancel() as few before it queues the interruption. The limits
// are for a thread that is suspended there.
constexpr int longest_start = 5'000, longest_cancel = 10'000;

}  // namespace

IThreadContext::~IThreadContext() = default;
IThreadJob::~IThreadJob() = default;
IThreadTask::~IThreadTask() = default;
IThreadOwner::~IThreadOwner() = default;

TThreadTask::TThreadTask() : Started(true, false), Finished(true, false) {}

TThreadTask::TThreadTask(TThreadTask const& other)
    : SmartPtrObj(other),
      IThreadTask(other),
      Context(other.current_worker()),
      Started(other.Started),
      Finished(other.Finished),
      Exception(other.Exception),
      life(other.life.load()) {}

TThreadTask& TThreadTask::operator=(TThreadTask const& other) {
  if (this == &other) return *this;
  IThreadTask::operator=(other);
  context_copies.replace(Context, other.current_worker());
  Started = other.Started;
  Finished = other.Finished;
  Exception = other.Exception;
  life = other.life.load();
  return *this;
}

TThreadTask::~TThreadTask() { delete Exception; }

bool TThreadTask::IsStarted() const { return Started.Signaled(0); }
bool TThreadTask::IsFinished() const { return Finished.Signaled(0); }
bool TThreadTask::WaitForStart(int timeoutMs) const { return Started.Signaled(timeoutMs); }
bool TThreadTask::WaitForFinish(int timeoutMs) const { return Finished.Signaled(timeoutMs); }
bool TThreadTask::IsRunning() const { return IsStarted() && !IsFinished(); }

SmartPtr<IThreadContext> TThreadTask::current_worker() const {
  return context_copies.copy(Context);
}

SmartPtr<IThreadContext> TThreadTask::worker_if_running() const {
  return IsStarted() && !IsFinished() ? current_worker() : nullptr;
}

void TThreadTask::Suspend() {
  if (auto const worker = worker_if_running()) worker->Suspend();
}
void TThreadTask::Resume() {
  if (auto const worker = worker_if_running()) worker->Resume();
}
void TThreadTask::SetPriority(int priority) {
  if (auto const worker = worker_if_running()) worker->SetPriority(priority);
}

bool TThreadTask::IsException() const { return Exception != nullptr; }
void TThreadTask::RethrowException() { throw EGeneric(*Exception); }

bool TThreadTask::change_phase(phase from, phase to) noexcept {
  return life.compare_exchange_strong(from, to);
}

// If true, nobody interrupts the worker for this task from now on.
bool TThreadTask::end_by_worker() noexcept {
  return change_phase(phase::running, phase::ended) ||
         change_phase(phase::resigning, phase::ended);
}

// A Run() that does without RunTask() begins here.
void TThreadTask::TaskStarted() {
  change_phase(phase::waiting, phase::running);
  Started.SetEvent();
}

void TThreadTask::TaskFinished() {
  if (!end_by_worker()) {
    await_interruption(false);
    if (!end_by_worker() && life == phase::cancelling) throw EThreadInterrupt();
  }
  finish();
}

void TThreadTask::TaskInterrupted() {
  keep({{"Text", "Interrupted"}});
  if (!end_by_worker()) {
    await_interruption(true);
    if (!end_by_worker() && life == phase::cancelling) {
      Finished.SetEvent();
      return;
    }
  }
  finish();
}

void TThreadTask::finish() {
  Finished.SetEvent();
  context_copies.replace(Context, SmartPtr<IThreadContext>());
}

// A Cancel() is under way on another thread, which waits for the end of this one.
// Until it has queued its call, this thread must not leave its body: an
// interruption that finds no body bars the worker from all further work.
//
// An exception alone does not tell that the call has come: the work may have
// swallowed it, or thrown an EThreadInterrupt of its own. The library's workers
// know; of workers of others an exception is taken for the call.
void TThreadTask::await_interruption(bool has_exception) const {
  auto const worker = current_worker();
  auto const own = dynamic_cast<TThreadContext const*>(worker.get());
  ULONGLONG const end = GetTickCount64() + longest_cancel;
  try {
    while (life == phase::cancelling && !(own ? own->interruption_came() : has_exception) &&
           GetTickCount64() < end)
      TThread::Pause();
  } catch (EThreadInterrupt const&) {
    // The phase tells the caller.
  }
}

// One at a time: two calls that both start the worker again would give it two
// threads. The worker itself takes no lock when its task ends, so a worker that is
// suspended or killed there keeps nobody from cancelling.
void TThreadTask::Cancel() {
  if (worker_thread == GetCurrentThreadId()) resign();
  TLock const guard(cancel_lock);
  if (change_phase(phase::waiting, phase::cancelled)) {
    keep({{"Text", "Interrupted"}});
  } else if (change_phase(phase::running, phase::cancelling) ||
             change_phase(phase::resigning, phase::cancelling)) {
    interrupt_worker();
    worker_thread = 0;
    keep({{"Text", "Interrupted"}});
    change_phase(phase::cancelling, phase::cancelled);
  }
  finish();
}

// Does not interrupt the worker, which nobody would start again: the exception
// passes through the work only, and run_work() catches it.
void TThreadTask::resign() {
  change_phase(phase::running, phase::resigning);
  await_interruption(false);
  throw EThreadInterrupt();
}

// An interrupted worker ends without a report: its owner still knows it, and it
// goes on once it has a thread.
void TThreadTask::interrupt_worker() try {
  WaitForStart(longest_start);
  auto const worker = current_worker();
  if (!worker) return;
  worker->Interrupt();
  if (!Context) return;
  try {
    worker->Start();
  } catch (...) {
  }
} catch (...) {
  change_phase(phase::cancelling, phase::running);
  throw;
}

// Either this or Cancel() changes the phase first: work does not begin after its
// task was cancelled.
bool TThreadTask::begin(SmartPtr<IThreadContext> const& context) {
  if (!change_phase(phase::waiting, phase::running)) return false;
  Context = context;
  worker_thread = GetCurrentThreadId();
  TaskStarted();
  return true;
}

void TThreadTask::run_work(SmartPtr<IThreadContext> const& context, void (*work)(void*),
                           void* its_work) {
  if (!begin(context)) return;
  try {
    keep_failure_of(work, its_work);
    worker_thread = 0;
    if (life == phase::resigning) keep({{"Text", "Interrupted"}});
    TaskFinished();
  } catch (EThreadInterrupt const&) {
    worker_thread = 0;
    bool const resigns = life == phase::resigning;
    TaskInterrupted();
    if (!resigns || life != phase::ended) throw;
  } catch (...) {
    worker_thread = 0;
    TaskFinished();
    throw;
  }
}

// A clause for each type: to sort by `throw;` would be a second throw, for which the
// library makes a second dump. That one would be kept, although it is made when the
// frames of the work are gone.
void TThreadTask::keep_failure_of(void (*work)(void*), void* its_work) {
  try {
    work(its_work);
  } catch (EThreadInterrupt const&) {
    throw;
  } catch (EStackOverflowException const& error) {
    // The worker goes on, and its next job may overflow as well.
    EStackOverflowException::ResetStack();
    keep(error);
  } catch (EGeneric const& error) {
    keep(error);
  } catch (std::exception const& error) {
    keep({{"Text", error.what()}, {"Type", velt::detail::readable_name(typeid(error))}});
  } catch (...) {
    EGeneric unknown({"Text", "Unknown exception"});
    // Null for what another compiler threw.
    if (std::type_info const* const type = abi::__cxa_current_exception_type())
      unknown.put_value("Type", velt::detail::readable_name(*type));
    keep(unknown);
  }
}

// Keeps the first exception: the worker and Cancel() may both have one.
void TThreadTask::keep(EGeneric const& error) {
  auto kept = std::make_unique<EGeneric>(error);
  EGeneric* none = nullptr;
  if (std::atomic_ref(Exception).compare_exchange_strong(none, kept.get()))
    static_cast<void>(kept.release());
}
