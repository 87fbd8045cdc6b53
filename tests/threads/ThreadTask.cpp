#include "velt/threads/ThreadTask.h"

#include <stdexcept>

#include "tests/support/Expect.h"
#include "tests/threads/Support.h"

using namespace velt_test;

using TwoTasks = std::pair<SmartPtr<IThreadTask>, SmartPtr<IThreadTask>>;
TwoTasks add_recursions_0(IThreadPool& pool);
TwoTasks add_recursions_1(IThreadPool& pool);
TwoTasks add_recursions_2(IThreadPool& pool);
TwoTasks add_recursions_3(IThreadPool& pool);

namespace {

// A worker that only notes what it is asked to do.
struct NotedContext : IThreadContext {
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
struct OpenTask : TThreadTask {
  explicit OpenTask(std::function<void()> its_work = [] {}) : work(std::move(its_work)) {}
  void Run(SmartPtr<IThreadContext> const& context) override { RunTask(context, work); }
  void begin(SmartPtr<IThreadContext> const& context) {
    Context = context;
    TaskStarted();
  }
  std::string state() const {
    return std::string(IsStarted() ? "started " : "") + (IsFinished() ? "finished " : "") +
           (IsRunning() ? "running " : "") + (Context ? "worker " : "");
  }

  using TThreadTask::Context;
  using TThreadTask::TaskFinished;
  using TThreadTask::TaskInterrupted;

  std::function<void()> work;
};

struct ThreadTask : ::testing::Test {
  SmartPtr<NotedContext> context = MakeCounted<NotedContext>();
  SmartPtr<OpenTask> task = MakeCounted<OpenTask>();
};

// The exception that was kept.
std::string kept_by(IThreadTask& task) {
  return task.IsException() ? values_of([&] { task.RethrowException(); }) : "";
}

struct Refusal : std::logic_error {
  using logic_error::logic_error;
};

}  // namespace

TEST_F(ThreadTask, IsSteeredOnlyWhileAWorkerRunsIt) {
  auto const steer = [&] {
    context->notes.clear();
    task->Suspend();
    task->Resume();
    task->SetPriority(-1);
  };
  EXPECT_EQ(task->state(), "");
  EXPECT_FALSE(task->WaitForStart(0) || task->WaitForFinish(0) || task->IsException());
  task->begin(context);
  EXPECT_EQ(task->state(), "started running worker ");
  steer();
  EXPECT_EQ(context->notes, "suspend resume priority -1");
  task->TaskFinished();
  EXPECT_EQ(task->state(), "started finished ");
  EXPECT_EQ(context.use_count(), 1);
  task->Context = context;
  steer();
  EXPECT_EQ(context->notes, "");
}

TEST_F(ThreadTask, RunsOnceUnlessItWasCancelledInTheQueue) {
  for (bool const cancelled : {false, true}) {
    int runs = 0;
    auto const each = MakeCounted<OpenTask>([&] { ++runs; });
    if (cancelled) each->Cancel();
    for (int i = 0; i < 2; ++i) each->Run(context);
    EXPECT_EQ(each->state(), cancelled ? "finished " : "started finished ");
    EXPECT_EQ(runs, !cancelled);
    EXPECT_EQ(kept_by(*each), cancelled ? "Text=Interrupted" : "");
  }
}

TEST_F(ThreadTask, CancelInterruptsTheWorkerAndStartsItAgain) {
  for (bool const ends : {false, true}) {
    auto const each = MakeCounted<OpenTask>();
    context->notes.clear();
    context->on_interrupt = [&] {
      if (ends) each->TaskInterrupted();
    };
    context->on_start = [&] {
      EXPECT_EQ(each->IsFinished(), ends);
      throw 5;  // is not reported
    };
    each->begin(context);
    for (int time = 0; time < 2; ++time) each->Cancel();
    EXPECT_EQ(context->notes, "interrupt start ");
    EXPECT_EQ(each->state(), "started finished ");
    EXPECT_EQ(kept_by(*each), "Text=Interrupted");
    EXPECT_EQ(context.use_count(), 1);
  }
}

TEST_F(ThreadTask, FailedInterruptionComesOutOfCancel) {
  task->begin(context);
  context->on_interrupt = [] { ThrowSystemException(1234); };
  EXPECT_EQ(system_code([&] { task->Cancel(); }), 1234);
  EXPECT_EQ(task->state(), "started running worker ");
  task->TaskInterrupted();
  EXPECT_EQ(task->state(), "started finished ");
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
  EXPECT_TRUE(first.ended_within(patience) && second.ended_within(patience));
  EXPECT_EQ(context->notes, "interrupt start ");
}

// Without a second throw.
TEST_F(ThreadTask, ExceptionIsKeptWithItsValuesAndThrownAsAnEGeneric) {
  struct {
    std::function<void()> work;
    char const* kept;
  } const rows[] = {
      {[] { throw EGeneric({"Text", "No room"}); }, "Text=No room"},
      {[] { throw ERuntimeException(2, {"File", "x"}); },
       "Code=2;File=x;Text=No such file or directory"},
      {[] { throw Refusal("not today"); },
       "Text=not today;Type=(anonymous namespace)::Refusal"},
      {[] { throw 5; }, "Text=Unknown exception;Type=int"},
  };
  for (auto const& [work, kept] : rows) {
    auto const failing = MakeCounted<OpenTask>(work);
    EXPECT_EQ(throws_during([&] { failing->Run(context); }), 1);
    EXPECT_EQ(failing->state(), "started finished ");
    for (int time = 0; time < 2; ++time) EXPECT_EQ(kept_by(*failing), kept);
  }
}

TEST_F(ThreadTask, InterruptionIsKeptAndPassesOnUnlessTheWorkCancelledItself) {
  for (bool const by_itself : {false, true}) {
    auto const each = MakeCounted<OpenTask>();
    each->work = [&] { by_itself ? each->Cancel() : throw EThreadInterrupt(); };
    if (by_itself)
      each->Run(context);
    else
      EXPECT_THROW(each->Run(context), EThreadInterrupt);
    EXPECT_EQ(each->state(), "started finished ");
    EXPECT_EQ(kept_by(*each), "Text=Interrupted");
  }
  EXPECT_EQ(context->notes, "");
}

// The compiler sees that the work throws nothing, whatever the level.
TEST_F(ThreadTask, FaultsAreKeptOfWorkThatCannotThrow) {
  TestPool const pool(CreateNewThreadPool(1, 1));
  for (auto const& add : {add_recursions_0, add_recursions_1, add_recursions_2, add_recursions_3}) {
    auto const [overflow, fault] = add(*pool.operator->());
    ASSERT_TRUE(overflow->WaitForFinish(patience) && fault->WaitForFinish(patience));
    EXPECT_TRUE(kept_by(*overflow).starts_with("Text=Stack Overflow"));
    EXPECT_TRUE(kept_by(*fault).starts_with("Text=Access Violation"));
  }
}
