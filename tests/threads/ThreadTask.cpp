#include "velt/threads/ThreadTask.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

#include "tests/threads/PoolSupport.h"
#include "velt/exceptions/ExceptionFamily.h"

using namespace velt_test;

using TwoTasks = std::pair<SmartPtr<IThreadTask>, SmartPtr<IThreadTask>>;
TwoTasks add_recursions_0(IThreadPool& pool);
TwoTasks add_recursions_1(IThreadPool& pool);
TwoTasks add_recursions_2(IThreadPool& pool);
TwoTasks add_recursions_3(IThreadPool& pool);

namespace {

// A worker that only notes what it is asked to do.
class NotedContext : public IThreadContext {
public:
  void Interrupt() override { notes += "interrupt ", on_interrupt(); }
  void Restart() override { notes += "restart "; }
  void Suspend() override { notes += "suspend "; }
  void Resume() override { notes += "resume "; }
  void SetPriority(int priority) override { notes += "priority " + std::to_string(priority); }
  void Start() override { notes += "start ", on_start(); }

  std::function<void()> on_interrupt = [] {}, on_start = [] {};
  std::string notes;
};

// A task whose states the test steps through.
class OpenTask : public TThreadTask {
public:
  void Run(SmartPtr<IThreadContext> const& context) override { RunTask(context, work); }
  void begin(SmartPtr<IThreadContext> const& context) {
    Context = context;
    TaskStarted();
  }

  using TThreadTask::Context;
  using TThreadTask::TaskFinished;
  using TThreadTask::TaskInterrupted;

  std::function<void()> work = [] {};
};

struct ThreadTask : ::testing::Test {
  SmartPtr<NotedContext> context = MakeCounted<NotedContext>();
  SmartPtr<OpenTask> task = MakeCounted<OpenTask>();
};

// Started, finished, running, and whether there is a worker.
std::string state(OpenTask const& task) {
  return std::string(task.IsStarted() ? "started " : "") + (task.IsFinished() ? "finished " : "") +
         (task.IsRunning() ? "running " : "") + (task.Context ? "worker " : "");
}

// Of the exception that was kept.
std::string text_of(IThreadTask& task) {
  try {
    if (task.IsException()) task.RethrowException();
  } catch (EGeneric const& error) {
    return error["Text"].as_string();
  }
  return "";
}

void steer(IThreadTask& task) {
  task.Suspend();
  task.Resume();
  task.SetPriority(-1);
}

class Refusal : public std::logic_error {
  using logic_error::logic_error;
};

}  // namespace

TEST_F(ThreadTask, IsSteeredOnlyWhileAWorkerRunsIt) {
  EXPECT_EQ(state(*task), "");
  EXPECT_FALSE(task->WaitForStart(0));
  EXPECT_FALSE(task->WaitForFinish(0));
  EXPECT_FALSE(task->IsException());
  steer(*task);

  task->begin(context);
  EXPECT_EQ(state(*task), "started running worker ");
  EXPECT_TRUE(task->WaitForStart(0));
  EXPECT_EQ(context->notes, "");
  steer(*task);
  EXPECT_EQ(std::exchange(context->notes, ""), "suspend resume priority -1");

  task->TaskFinished();
  EXPECT_EQ(state(*task), "started finished ");
  EXPECT_TRUE(task->WaitForFinish(-1));
  EXPECT_EQ(context.use_count(), 1);
  task->Context = context;
  steer(*task);
  EXPECT_EQ(context->notes, "");
}

TEST_F(ThreadTask, RunsOnceUnlessItWasCancelledInTheQueue) {
  for (bool const cancelled : {false, true}) {
    int runs = 0;
    auto const each = MakeCounted<OpenTask>();
    each->work = [&] { ++runs; };
    if (cancelled) each->Cancel();
    for (int i = 0; i < 2; ++i) each->Run(context);
    EXPECT_EQ(state(*each), cancelled ? "finished " : "started finished ");
    EXPECT_EQ(runs, !cancelled);
    EXPECT_EQ(text_of(*each), cancelled ? "Interrupted" : "");
  }
}

TEST_F(ThreadTask, CancelInterruptsTheWorkerAndStartsItAgain) {
  using T = OpenTask;
  struct {
    void (*on_interrupt)(T&);
    void (*on_start)(T&);
    char const* notes;
  } const rows[] = {
      {[](T&) {}, [](T& t) { EXPECT_FALSE(t.IsFinished()); }, "interrupt start "},
      {[](T&) {}, [](T&) { throw 5; }, "interrupt start "},
      {[](T& t) { t.TaskInterrupted(); }, [](T& t) { EXPECT_TRUE(t.IsFinished()); },
       "interrupt start "},
  };
  for (auto const& [on_interrupt, on_start, notes] : rows) {
    auto const each = MakeCounted<T>();
    context->notes.clear();
    context->on_interrupt = [&] { on_interrupt(*each); };
    context->on_start = [&] { on_start(*each); };
    each->begin(context);
    for (int time = 0; time < 2; ++time) {
      each->Cancel();
      EXPECT_EQ(context->notes, notes);
      EXPECT_EQ(state(*each), "started finished ");
      EXPECT_EQ(text_of(*each), "Interrupted");
      EXPECT_EQ(context.use_count(), 1);
    }
  }
}

TEST_F(ThreadTask, FailedInterruptionComesOutOfCancel) {
  task->begin(context);
  context->on_interrupt = [] { ThrowSystemException(1234); };
  EXPECT_EQ(system_code([&] { task->Cancel(); }), 1234);
  EXPECT_EQ(state(*task), "started running worker ");
  task->TaskInterrupted();
  EXPECT_EQ(state(*task), "started finished ");
}

TEST_F(ThreadTask, SecondCancelWaitsForTheFirst) {
  TEvent interrupting, go_on;
  context->on_interrupt = [&] {
    interrupting.Set();
    go_on.WaitForSignal();
  };
  task->begin(context);
  Worker first([&] { task->Cancel(); }), second([&] { task->Cancel(); });
  first.StartThread();
  interrupting.WaitForSignal();
  second.start_into_body();
  EXPECT_FALSE(second.ended_within(50));
  go_on.Set();
  EXPECT_TRUE(first.ended_within(patience));
  EXPECT_TRUE(second.ended_within(patience));
  EXPECT_EQ(context->notes, "interrupt start ");
}

TEST_F(ThreadTask, ExceptionIsKeptWithItsValuesAndThrownAsAnEGeneric) {
  struct {
    std::function<void()> work;
    char const* text;  // of what is thrown again
  } const rows[] = {
      {[] { throw EGeneric({"Text", "No room"}); }, "No room"},
      {[] { throw ERuntimeException(2, {"File", "x"}); },
       "Code: 2 (0x2)\nFile: x\nText: No such file or directory"},
      {[] { throw Refusal("not today"); }, "Text: not today\nType: (anonymous namespace)::Refusal"},
      {[] { throw 5; }, "Text: Unknown exception\nType: int"},
  };
  for (auto const& [work, text] : rows) {
    SCOPED_TRACE(text);
    auto const failing = MakeCounted<OpenTask>();
    failing->work = work;
    failing->Run(context);
    EXPECT_EQ(state(*failing), "started finished ");
    ASSERT_TRUE(failing->IsException());
    for (int time = 0; time < 2; ++time) try {
        failing->RethrowException();
      } catch (EGeneric const& error) {
        EXPECT_EQ(typeid(error), typeid(EGeneric));
        EXPECT_STREQ(error.what(), text);
      }
  }
}

TEST_F(ThreadTask, InterruptionIsKeptAndPassesOnUnlessTheWorkCancelledItself) {
  for (bool const by_itself : {false, true}) {
    auto const each = MakeCounted<OpenTask>();
    each->work = [&] {
      EXPECT_EQ(state(*each), "started running worker ");
      by_itself ? each->Cancel() : throw EThreadInterrupt();
    };
    if (by_itself)
      each->Run(context);
    else
      EXPECT_THROW(each->Run(context), EThreadInterrupt);
    EXPECT_EQ(state(*each), "started finished ");
    EXPECT_EQ(text_of(*each), "Interrupted");
  }
  EXPECT_EQ(context->notes, "");
}

TEST_F(ThreadTask, ExceptionIsKeptWithoutASecondThrow) {
  ThrowCounter const throws;
  task->work = [] { throw EGeneric({"Text", "No room"}); };
  task->Run(context);
  EXPECT_EQ(throws.count, 1);
  EXPECT_EQ(text_of(*task), "No room");
}

// The compiler sees that the work throws nothing, whatever the level.
TEST_F(ThreadTask, FaultsAreKeptOfWorkThatCannotThrow) {
  TestPool const pool(CreateNewThreadPool(1, 1));
  for (auto const& add : {add_recursions_0, add_recursions_1, add_recursions_2, add_recursions_3}) {
    auto const [overflow, fault] = add(*pool.operator->());
    ASSERT_TRUE(overflow->WaitForFinish(patience) && fault->WaitForFinish(patience));
    EXPECT_EQ(text_of(*overflow), "Stack Overflow");
    EXPECT_EQ(text_of(*fault).substr(0, 16), "Access Violation");
  }
}

TEST_F(ThreadTask, WaitsAreLeftByQueuedCallsAndByInterruption) {
  auto const queue = [](PAPCFUNC call) { ::QueueUserAPC(call, GetCurrentThread(), 0); };
  queue([](ULONG_PTR) {});
  EXPECT_FALSE(task->WaitForFinish(-1));
  queue([](ULONG_PTR) { throw EThreadInterrupt(); });
  EXPECT_THROW(task->WaitForFinish(-1), EThreadInterrupt);
  queue([](ULONG_PTR) { throw EThreadInterrupt(); });
  EXPECT_THROW(task->IsStarted(), EThreadInterrupt);
}
