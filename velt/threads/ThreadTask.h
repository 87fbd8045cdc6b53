// TThreadTask: a job that can be watched and steered, to derive from; and
// MakeThreadTask(), which makes one of a callable. docs/threads.md shows both.
//
// Beside std::packaged_task: a task has no result, but it can be cancelled while
// it runs, stopped and resumed, and asked whether it has begun.
#pragma once

#include <atomic>
#include <concepts>
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
// A derived class supplies Run(). RunTask() keeps for it what the operations rely
// on; a Run() of its own has to
//
//   - do nothing if IsFinished(): to cancel a task does not take it out of a
//     queue;
//   - store the context in Context, then call TaskStarted(), before the work;
//   - keep a copy of an EGeneric in Exception, made by new, and not let other
//     exceptions out either, as they would cost the worker;
//   - call TaskFinished() on every way out, and TaskInterrupted() in its place
//     when an EThreadInterrupt passes, which it must let pass.
//
// A task runs once. A copy waits for the same events as its source and has the
// same worker, but to cancel the one does not keep the other from running. It
// shares the kept exception too, which each of the two deletes, so a class whose
// tasks are copied after one was kept has to see to that.
class VELT_API TThreadTask : public IThreadTask {
public:
  // Throws ESystemException.
  TThreadTask();
  TThreadTask(TThreadTask const& other);
  // An exception kept before is overwritten and not deleted.
  TThreadTask& operator=(TThreadTask const& other);
  ~TThreadTask() noexcept override;

  bool IsStarted() const override;
  bool IsFinished() const override;
  bool WaitForStart(int timeoutMs) const override;
  bool WaitForFinish(int timeoutMs) const override;

  // Of a running task the worker gets five seconds to reach an alertable wait,
  // where EThreadInterrupt comes out; then it is killed, with its locks taken.
  // The task has ended when this returns. A worker that cannot be put back to
  // work is not reported; a failed interruption throws ESystemException.
  //
  // Called by the task's own work, the interruption comes out of here. From a
  // second thread it waits until the first has done it.
  void Cancel() override;
  void Suspend() override;
  void Resume() override;
  void SetPriority(int priority) override;
  bool IsException() const override;
  [[noreturn]] void RethrowException() override;
  bool IsRunning() const override;

protected:
  virtual void TaskStarted();
  virtual void TaskFinished();

  // TaskFinished(), except that a Cancel() under way finds Context as it was: it
  // restarts the worker and takes the reference away itself.
  void TaskInterrupted();

  // Run() for `work`, a callable without arguments. Does nothing if the task was
  // cancelled before, or has run before. What the work throws is kept:
  //
  //   EGeneric and its family   as an EGeneric with the same values; after an
  //                             overflow the stack can overflow again
  //   std::exception            "Text", its what(), and "Type", its class
  //   anything else             "Text", "Unknown exception", and "Type" if known
  //   EThreadInterrupt          not at all: the task ends, and it passes on
  template <class Work>
  void RunTask(SmartPtr<IThreadContext> const& context, Work&& work) {
    if (!begin(context)) return;
    try {
      std::forward<Work>(work)();
    } catch (...) {
      end_by_exception();
      return;
    }
    TaskFinished();
  }

  SmartPtr<IThreadContext> Context;
  TEvent Started, Finished;
  EGeneric* Exception = nullptr;

private:
  enum class phase { waiting, begun, cancelled };

  bool begin(SmartPtr<IThreadContext> const& context);
  void end_by_exception();
  void keep_exception();
  void keep(EGeneric const& error);

  SmartPtr<IThreadContext> current_worker() const;
  SmartPtr<IThreadContext> worker_if_running() const;
  void cancel_work();

  mutable velt::detail::handle_copies context_copies;
  std::atomic<phase> life = phase::waiting;
  std::atomic<bool> being_cancelled = false;
  TMultiLock cancel_lock;
};

namespace velt::detail {

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

// A task that calls a copy of `work`, which takes no arguments and whose result
// is dropped. The copy lives as long as the task. Throws ESystemException and
// what the copy throws.
template <class Work>
  requires std::invocable<std::decay_t<Work>&>
SmartPtr<IThreadTask> MakeThreadTask(Work&& work) {
  return MakeCounted<velt::detail::callable_task<std::decay_t<Work>>>(std::in_place,
                                                                      std::forward<Work>(work));
}
