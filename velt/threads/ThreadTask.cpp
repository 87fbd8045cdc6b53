#include "velt/threads/ThreadTask.h"

#include <cxxabi.h>

#include <memory>
#include <typeinfo>

#include "velt/base/TypeName.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/faults/StackOverflowException.h"

namespace {

// How long a worker may need from its decision to run a task to the mark that
// says so: a suspended one needs for ever.
constexpr int longest_start_ms = 5000;

class raised_flag {
public:
  explicit raised_flag(std::atomic<bool>& its_flag) : flag(its_flag) { flag = true; }
  raised_flag(raised_flag const&) = delete;
  raised_flag& operator=(raised_flag const&) = delete;
  ~raised_flag() { flag = false; }

private:
  std::atomic<bool>& flag;
};

}  // namespace

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

void TThreadTask::TaskStarted() { Started.SetEvent(); }

void TThreadTask::TaskFinished() {
  Finished.SetEvent();
  context_copies.replace(Context, SmartPtr<IThreadContext>());
}

void TThreadTask::TaskInterrupted() {
  if (being_cancelled)
    Finished.SetEvent();
  else
    TaskFinished();
}

// One at a time: two that both started the worker again would leave it with two
// threads.
void TThreadTask::Cancel() {
  TLock const guard(cancel_lock);
  raised_flag const flag(being_cancelled);
  auto found = phase::waiting;
  life.compare_exchange_strong(found, phase::cancelled);
  if (found == phase::begun) WaitForStart(longest_start_ms);
  cancel_work();
  Finished.SetEvent();
  context_copies.replace(Context, SmartPtr<IThreadContext>());
}

// The worker left without telling its owner, where it is still registered and
// goes on once it has a thread. Unless the work ended by itself meanwhile: then
// the worker does not belong to this task any more.
void TThreadTask::cancel_work() {
  auto const worker = worker_if_running();
  if (!worker) return;
  worker->Interrupt();
  if (!Context) return;
  try {
    worker->Start();
  } catch (...) {
  }
}

// Either this or Cancel() decides, so that no work begins behind the back of
// somebody who was told that it will not.
bool TThreadTask::begin(SmartPtr<IThreadContext> const& context) {
  auto found = phase::waiting;
  if (!life.compare_exchange_strong(found, phase::begun)) return false;
  Context = context;
  TaskStarted();
  return true;
}

void TThreadTask::end_by_exception() {
  try {
    keep_exception();
  } catch (EThreadInterrupt const&) {
    TaskInterrupted();
    throw;
  } catch (...) {
    TaskFinished();
    throw;
  }
  TaskFinished();
}

void TThreadTask::keep_exception() {
  try {
    throw;
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

void TThreadTask::keep(EGeneric const& error) {
  Exception = std::make_unique<EGeneric>(error).release();
}
