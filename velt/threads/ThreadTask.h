// TThreadTask: a job that can be watched and steered, to derive from; and
// MakeThreadTask(), which makes one of a callable. docs/threads.md shows both.
//
// Unlike a std::packaged_task, a task has no result, but it can be cancelled while
// it runs, suspended and resumed, and asked whether it has begun.
#pragma once

#include <atomic>
#include <concepts>
#include <memory>
#include <type_traits>
#include <utility>

#include "velt/base/Export.h"
#include "velt/base/HandleCopies.h"
#include "velt/locks/Event.h"
#include "velt/locks/MultiLock.h"
#include "velt/threads/ThreadJob.h"

class EGeneric;

// The state is that of two events:
//
//                            Started    Finished   Context
//   new, or in a queue       no         no         none
//   running                  yes        no         the worker
//   ended                    yes        yes        none
//   cancelled in the queue   no         yes        none
//
// A derived class supplies Run(). RunTask() does all that the operations rely on;
// a Run() without it has to
//
//   - do nothing if IsFinished(): to cancel a task does not take it out of a
//     queue;
//   - store the context in Context, then call TaskStarted(), before the work;
//   - keep a copy of an EGeneric in Exception, made by new, and not let other
//     exceptions out either, as they would cost the worker;
//   - call TaskFinished() on every way out, and TaskInterrupted() in its place
//     when an EThreadInterrupt passes, which it must let pass. TaskFinished() may
//     throw one itself, so a destructor must not call it.
//
// A task runs once. Copies share events, worker and kept exception; cancelling
// one does not cancel the other. Both delete the exception, so do not copy a task
// that has kept one.
class VELT_API TThreadTask : public IThreadTask {
public:
  // Throws ESystemException.
  TThreadTask();
  TThreadTask(TThreadTask const& other);
  // An exception kept before is overwritten and not deleted.
  TThreadTask& operator=(TThreadTask const& other);
  ~TThreadTask() override;

  bool IsStarted() const override;
  bool IsFinished() const override;
  bool WaitForStart(int timeoutMs) const override;
  bool WaitForFinish(int timeoutMs) const override;

  // A running task has five seconds to reach an alertable wait, which throws
  // EThreadInterrupt; its end is such a wait too. Then its worker is killed, and
  // its locks stay taken. The task has ended when this returns. A worker that
  // cannot be put back to work is not reported; a failed interruption throws
  // ESystemException. If the task ends before the interruption is under way, it
  // counts as done and its worker is left alone.
  //
  // Called by the task's own work it throws EThreadInterrupt, after which the worker
  // goes on with its next job; with a Run() that does without RunTask() the worker
  // ends for good. A second thread waits until the first has done it.
  void Cancel() override;
  void Suspend() override;
  void Resume() override;
  void SetPriority(int priority) override;
  bool IsException() const override;
  [[noreturn]] void RethrowException() override;
  bool IsRunning() const override;

protected:
  // Sets Started, on the worker's thread.
  virtual void TaskStarted();

  // On the worker's thread. Throws EThreadInterrupt if a Cancel() is under way:
  // the call that another thread has queued, or is about to queue, must not reach
  // the worker's next job.
  virtual void TaskFinished();

  // TaskFinished() after an EThreadInterrupt, which is kept as an EGeneric with
  // "Text" ("Interrupted"). A Cancel() under way finds Context as it was: it
  // restarts the worker and takes the reference away itself.
  void TaskInterrupted();

  // Run() for `work`, a callable without arguments. Does nothing if the task was
  // cancelled before, or has run before. What the work throws is kept:
  //
  //   EGeneric and its family   as an EGeneric with the same values; after an
  //                             overflow the stack can overflow again
  //   std::exception            "Text", its what(), and "Type", its class
  //   anything else             "Text", "Unknown exception", and "Type" if known
  //   EThreadInterrupt          "Text", "Interrupted"; it passes on, unless the
  //                             work cancelled its own task
  template <class Work>
  void RunTask(SmartPtr<IThreadContext> const& context, Work&& work) {
    using callable = std::remove_reference_t<Work>;
    run_work(
        context, [](void* its_work) { std::forward<Work>(*static_cast<callable*>(its_work))(); },
        const_cast<void*>(static_cast<void const*>(std::addressof(work))));
  }

  // The worker while it runs the task, the events of its start and end, and the kept exception,
  // which the task deletes.
  SmartPtr<IThreadContext> Context;
  TEvent Started;
  TEvent Finished;
  EGeneric* Exception = nullptr;

private:
  // Who ends the task, its worker or Cancel():
  //
  //   waiting     to running      the worker, before the work
  //   running     to ended        the worker, after the work
  //   running     to resigning    Cancel() by the task's own work
  //   resigning   to ended        the worker, after the work
  //   waiting     to cancelled    Cancel()
  //   running, resigning          Cancel(), which interrupts the worker now
  //               to cancelling
  //   cancelling  to cancelled    Cancel(), when the worker's thread has ended
  //   cancelling  to running      Cancel(), if the interruption failed
  enum class phase { waiting, running, resigning, ended, cancelling, cancelled };

  // Not a part of the template: if the compiler sees the work and proves that it
  // throws nothing, it drops the handlers around it. Then a fault or an overflow in
  // the work would leave the task unfinished for ever.
  void run_work(SmartPtr<IThreadContext> const& context, void (*work)(void*), void* its_work);
  bool begin(SmartPtr<IThreadContext> const& context);
  void keep_failure_of(void (*work)(void*), void* its_work);
  void keep(EGeneric const& error);

  bool change_phase(phase from, phase to) noexcept;
  bool end_by_worker() noexcept;
  void await_interruption(bool has_exception) const;
  void finish();

  SmartPtr<IThreadContext> current_worker() const;
  SmartPtr<IThreadContext> worker_if_running() const;
  [[noreturn]] void resign();
  void interrupt_worker();

  mutable velt::detail::handle_copies context_copies;
  std::atomic<phase> life = phase::waiting;
  std::atomic<unsigned long> worker_thread = 0;  // its id, while RunTask() calls the work
  TMultiLock cancel_lock;
};

namespace velt::detail {

template <class Work>
concept callable_work = std::invocable<std::decay_t<Work>&>;
template <class Work>
concept work_without_result =
    callable_work<Work> && std::is_void_v<std::invoke_result_t<std::decay_t<Work>&>>;

template <class Work>
class callable_task final : public TThreadTask {
public:
  template <class Source>
  explicit callable_task(std::in_place_t, Source&& source) : work(std::forward<Source>(source)) {}

  void Run(SmartPtr<IThreadContext> const& context) override { RunTask(context, work); }

private:
  Work work;
};

}  // namespace velt::detail

// A task that calls a copy of `work`, which takes no arguments and returns nothing.
// The copy lives as long as the task. Throws ESystemException and what the copy
// throws.
template <velt::detail::work_without_result Work>
SmartPtr<IThreadTask> MakeThreadTask(Work&& work) {
  return MakeCounted<velt::detail::callable_task<std::decay_t<Work>>>(std::in_place,
                                                                      std::forward<Work>(work));
}

// Nobody could read the result: store it in a variable of the submitter's.
template <velt::detail::callable_work Work>
  requires(!velt::detail::work_without_result<Work>)
SmartPtr<IThreadTask> MakeThreadTask(Work&& its_result_would_be_lost) = delete;
