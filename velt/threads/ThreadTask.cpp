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

// Milliseconds. A worker needs some instructions from its decision to run a task
// to the mark that says so, and somebody who cancels as few before he queues the
// interruption; but a thread that is suspended there needs for ever.
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

TThreadTask::~TThreadTask() noexcept { delete Exception; }

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

// True from the moment on at which nobody interrupts the worker for this task any
// more.
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

// Somebody cancels the task and waits for the end of this thread. Until the call
// is queued the thread must not leave its body: to interrupt a thread without a
// body bars the worker from all further work. The call may have come already, and
// the work have swallowed it; and an EThreadInterrupt may be of other origin. Only
// the library's own workers know; of others it is taken for granted that an
// exception was that call.
void TThreadTask::await_interruption(bool has_exception) const {
  auto const worker = current_worker();
  auto const own = dynamic_cast<TThreadContext const*>(worker.get());
  ULONGLONG const end = GetTickCount64() + longest_cancel;
  try {
    while (life == phase::cancelling && !(own ? own->interruption_came() : has_exception) &&
           GetTickCount64() < end)
      TThread::Pause();
  } catch (EThreadInterrupt const&) {
    // The caller goes by the phase.
  }
}

// One at a time: two that both started the worker again would leave it with two
// threads. The worker takes no lock at its end, so that one which is suspended or
// killed there keeps nobody from cancelling.
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

// The worker stays with the pool: what passes through the work is caught by the
// one who called it.
void TThreadTask::resign() {
  change_phase(phase::running, phase::resigning);
  await_interruption(false);
  throw EThreadInterrupt();
}

// The worker left without telling its owner, where it is still registered and
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

// Either this or Cancel() decides, so that no work begins behind the back of
// somebody who was told that it will not.
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

// A clause for each type instead of one that sorts by `throw;`: each throw under
// way would get a dump, and the last one, made when the frames of the work are
// gone, would be the one that is kept.
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

// The first one stays. The worker and somebody who cancels may both have one.
void TThreadTask::keep(EGeneric const& error) {
  auto kept = std::make_unique<EGeneric>(error);
  EGeneric* none = nullptr;
  if (std::atomic_ref(Exception).compare_exchange_strong(none, kept.get()))
    static_cast<void>(kept.release());
}
