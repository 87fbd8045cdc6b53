#include "velt/threads/ThreadTask.h"

#include <stdexcept>

#include "tests/support/Expect.h"
#include "tests/support/Imports.h"
#include "tests/threads/Support.h"

using namespace velt_test;

using TwoTasks = std::pair<SmartPtr<IThreadTask>, SmartPtr<IThreadTask>>;
TwoTasks add_recursions_0(IThreadPool& pool);
TwoTasks add_recursions_1(IThreadPool& pool);
TwoTasks add_recursions_2(IThreadPool& pool);
TwoTasks add_recursions_3(IThreadPool& pool);

namespace {

struct ThreadTask : ::testing::Test {
  ~ThreadTask() noexcept override {}

  Gate gate;
  TestPool const pool{1, 1};
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
  auto const task = MakeThreadTask([this] { gate.wait(); });
  auto const is = [&](bool started, bool running, bool finished) {
    return task->IsStarted() == started && task->IsRunning() == running &&
           task->IsFinished() == finished && !task->IsException();
  };
  EXPECT_TRUE(is(false, false, false));
  EXPECT_FALSE(task->WaitForStart(0) || task->WaitForFinish(0));
  pool->AddJob(task);
  ASSERT_TRUE(task->WaitForStart(patience) && eventually([&] { return gate.inside == 1; }));
  EXPECT_TRUE(is(true, true, false));
  task->SetPriority(-1);
  task->Suspend();
  EXPECT_EQ(::SuspendThread(gate.thread), 1u);
  task->Resume();
  EXPECT_EQ(::ResumeThread(gate.thread), 1u);
  gate.open.Set();
  ASSERT_TRUE(task->WaitForFinish(patience));
  EXPECT_TRUE(is(true, false, true));
  task->SetPriority(1);
  task->Suspend();
  EXPECT_EQ(GetThreadPriority(gate.thread), -1);
  EXPECT_EQ(::ResumeThread(gate.thread), 0u);
}

TEST_F(ThreadTask, RunsOnceUnlessItWasCancelledInTheQueue) {
  for (bool const cancelled : {false, true}) {
    int runs = 0;
    auto const task = MakeThreadTask([&] { ++runs; });
    if (cancelled) task->Cancel();
    for (int i = 0; i < 2; ++i) task->Run(nullptr);
    EXPECT_TRUE(task->IsFinished() && task->IsStarted() != cancelled);
    EXPECT_EQ(runs, !cancelled);
    EXPECT_EQ(kept_by(*task), cancelled ? "Text=Interrupted" : "");
  }
}

TEST_F(ThreadTask, FailedInterruptionComesOutOfCancel) {
  auto const task = pool->AddJob([this] { gate.wait(); });
  ASSERT_TRUE(task->WaitForStart(patience));
  {
    Replacement const failing{VELT_CALL(QueueUserAPC), [](auto...) -> DWORD {
                                SetLastError(injected_code);
                                return 0;
                              }};
    Replacement const soon{VELT_CALL(WaitForSingleObjectEx),
                           [](auto platform, HANDLE object, DWORD time, BOOL alertable) -> DWORD {
                             return platform(object, time == 5'000 ? 0 : time, alertable);
                           }};
    EXPECT_EQ(system_code([&] { task->Cancel(); }), injected_code);
  }
  EXPECT_TRUE(task->IsRunning());
  gate.open.Set();
  EXPECT_TRUE(task->WaitForFinish(patience));
  EXPECT_EQ(kept_by(*task), "");
}

// Of work that swallows the interruption, which costs no other task its worker.
TEST_F(ThreadTask, SecondCancelWaitsForTheFirst) {
  TEvent swallowed, go_on;
  auto const task = pool->AddJob([&] {
    EXPECT_THROW(gate.wait(), EThreadInterrupt);
    swallowed.Set();
    go_on.WaitForSingleObject(INFINITE, FALSE);
  });
  ASSERT_TRUE(task->WaitForStart(patience));
  Worker first([&] { task->Cancel(); }), second([&] { task->Cancel(); });
  first.StartThread();
  swallowed.WaitForSignal();
  second.start_into_body();
  EXPECT_FALSE(second.ended_within(50));
  go_on.Set();
  EXPECT_TRUE(first.ended_within(4'000) && second.ended_within(4'000));
  EXPECT_EQ(kept_by(*task), "Text=Interrupted");
  auto const next = pool->AddJob([] {});
  EXPECT_TRUE(next->WaitForFinish(patience) && !next->IsException());
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
    auto const task = MakeThreadTask(work);
    EXPECT_EQ(throws_during([&] { task->Run(nullptr); }), 1);
    EXPECT_TRUE(task->IsStarted() && task->IsFinished());
    for (int time = 0; time < 2; ++time) EXPECT_EQ(kept_by(*task), kept);
  }
}

TEST_F(ThreadTask, InterruptionIsKeptAndPassesOnUnlessTheWorkCancelledItself) {
  SmartPtr<IThreadTask> task = MakeThreadTask([] { throw EThreadInterrupt(); });
  EXPECT_THROW(task->Run(nullptr), EThreadInterrupt);
  EXPECT_EQ(kept_by(*task), "Text=Interrupted");
  task = MakeThreadTask([&] { task->Cancel(); });
  task->Run(nullptr);
  EXPECT_EQ(kept_by(*task), "Text=Interrupted");
}

// The compiler sees that the work throws nothing, whatever the level.
TEST_F(ThreadTask, FaultsAreKeptOfWorkThatCannotThrow) {
  for (auto const& add : {add_recursions_0, add_recursions_1, add_recursions_2, add_recursions_3}) {
    auto const [overflow, fault] = add(*pool);
    ASSERT_TRUE(overflow->WaitForFinish(patience) && fault->WaitForFinish(patience));
    EXPECT_TRUE(kept_by(*overflow).starts_with("Text=Stack Overflow"));
    EXPECT_TRUE(kept_by(*fault).starts_with("Text=Access Violation"));
  }
}
