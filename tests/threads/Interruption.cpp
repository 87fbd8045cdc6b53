#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <string>
#include <thread>

#include "tests/locks/OpenLock.h"
#include "tests/support/OpenHandles.h"
#include "tests/support/SystemCode.h"
#include "tests/threads/Support.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/threads/ThreadClass.h"

using namespace velt_test;

namespace {

constexpr unsigned int obey = 20'000;

class Stopwatch {
public:
  ULONGLONG taken() const { return GetTickCount64() - before; }

private:
  ULONGLONG before = GetTickCount64();
};

// Says that the frame it stands in was unwound.
struct Mark {
  ~Mark() { *flag = true; }
  bool* flag;
};

}  // namespace

TEST(Interruption, EndsAThreadOutOfItsWaitAndSaysNothing) {
  TEvent never;
  bool unwound = false, went_on = false;
  Worker worker([&] {
    Mark const mark{&unwound};
    never.WaitForSignal();
    went_on = true;
  });
  DebugText debug;
  worker.start_into_body();
  worker.InterruptThread(20, obey);
  EXPECT_TRUE(worker.ended_within(0));
  EXPECT_TRUE(unwound);
  EXPECT_FALSE(went_on);
  EXPECT_EQ(worker.exceptions, 0);
  EXPECT_EQ(worker.InterruptState, Worker::Idle);
  EXPECT_EQ(debug.text(), "");
}

TEST(Interruption, ThreadThatNeverWaitsIsKilledWhenItsTimeIsUp) {
  Worker worker([] { for (;;) YieldProcessor(); });
  worker.start_into_body();
  Stopwatch const watch;
  worker.InterruptThread(0, 100);
  EXPECT_GE(watch.taken(), 95u);
  EXPECT_LT(watch.taken(), 5'000u);
  EXPECT_TRUE(worker.ended_within(1'000));
  EXPECT_EQ(worker.InterruptState, Worker::Running);
}

TEST(Interruption, ThreadThatEndsInTimeIsLeftAlone) {
  bool reached_the_end = false;
  Worker worker([&] {
    ::Sleep(50);
    SleepEx(0, TRUE);
    reached_the_end = true;
  });
  worker.start_into_body();
  worker.InterruptThread(obey, 0);
  EXPECT_TRUE(reached_the_end);
  EXPECT_EQ(worker.InterruptState, Worker::Idle);

  Stopwatch const watch;
  worker.InterruptThread(0, obey);
  EXPECT_LT(watch.taken(), 5'000u);
  EXPECT_EQ(worker.InterruptState, Worker::Idle);
}

TEST(Interruption, ObjectThatNeverStartedWaitsOutTheTimeAndNeverRunsABody) {
  Worker worker([] {});
  Stopwatch const watch;
  worker.InterruptThread(60, obey);
  EXPECT_GE(watch.taken(), 55u);
  EXPECT_LT(watch.taken(), 5'000u);
  EXPECT_EQ(worker.InterruptState, Worker::InterruptRequested);
  for (int start = 0; start < 2; ++start) {
    worker.StartThread();
    EXPECT_TRUE(worker.ended_within(patience));
    EXPECT_EQ(worker.InterruptState, Worker::InterruptRequested);
    worker.CloseHandle();
  }
  EXPECT_EQ(worker.bodies, 0);
}

TEST(Interruption, ThreadOnItsWayToTheBodySkipsIt) {
  Worker worker([] {});
  worker.close_entrance();
  worker.StartThread();
  std::jthread const opener([&] {
    while (worker.InterruptState != Worker::InterruptRequested) ::Sleep(1);
    worker.open_entrance();
  });
  worker.InterruptThread(0, obey);
  EXPECT_TRUE(worker.ended_within(0));
  EXPECT_EQ(worker.bodies, 0);
  EXPECT_EQ(worker.InterruptState, Worker::InterruptRequested);
}

// The body begins between the two steps with which InterruptThread() finds no
// body and says so: it goes on unasked. What the first step found is set here by
// hand.
TEST(Interruption, BodyThatBeginsInTheGapRunsToItsEndOrIsKilled) {
  TEvent end;
  bool reached_the_end = false;
  Worker worker([&] {
    end.WaitForSignal();
    reached_the_end = true;
  });
  auto const begin_in_gap = [&] {
    worker.start_into_body();
    worker.InterruptState = Worker::Idle;
  };
  begin_in_gap();
  std::jthread const ender([&] {
    while (worker.InterruptState != Worker::InterruptRequested) ::Sleep(1);
    ::Sleep(20);
    end.Set();
  });
  worker.InterruptThread(0, obey);
  EXPECT_TRUE(reached_the_end);
  EXPECT_EQ(worker.InterruptState, Worker::InterruptRequested);

  worker.CloseHandle();
  worker.InterruptState = Worker::Idle;
  end.Reset();
  reached_the_end = false;
  begin_in_gap();
  worker.InterruptThread(0, 50);
  EXPECT_TRUE(worker.ended_within(1'000));
  EXPECT_FALSE(reached_the_end);
  EXPECT_EQ(worker.InterruptState, Worker::InterruptRequested);
}

TEST(Interruption, CallThatComesAfterTheBodyThrowsNoMoreAndStaysAsARequest) {
  Worker* self = nullptr;
  Worker worker([&] {
    self->QueueUserAPC(Worker::ThrowEThreadInterrupt, reinterpret_cast<std::uintptr_t>(
                                                          static_cast<TThreadClass*>(self)));
    throw 1;
  });
  self = &worker;
  bool went_on = false;
  worker.at_exception = [&] {
    TThread::Pause();
    went_on = true;
  };
  worker.close_entrance();
  worker.StartThread();
  worker.open_entrance();
  EXPECT_TRUE(worker.ended_within(patience));
  EXPECT_TRUE(went_on);
  EXPECT_EQ(worker.InterruptState, Worker::InterruptRequested);
}

TEST(Interruption, StepThrowsOnlyWhileTheBodyRuns) {
  Worker worker([] {});
  worker.ThrowEThreadInterrupt();
  EXPECT_EQ(worker.InterruptState, Worker::InterruptRequested);
  worker.ThrowEThreadInterrupt();
  EXPECT_EQ(worker.InterruptState, Worker::InterruptRequested);
  worker.InterruptState = Worker::Running;
  EXPECT_THROW(worker.ThrowEThreadInterrupt(), EThreadInterrupt);
  EXPECT_EQ(worker.InterruptState, Worker::Running);
}

TEST(Interruption, ThreadCanInterruptItself) {
  Worker* self = nullptr;
  bool unwound = false, went_on = false;
  Worker worker([&] {
    Mark const mark{&unwound};
    self->InterruptThread(0, obey);
    went_on = true;
  });
  self = &worker;
  worker.close_entrance();
  worker.StartThread();
  worker.open_entrance();
  EXPECT_TRUE(worker.ended_within(patience));
  EXPECT_TRUE(unwound);
  EXPECT_FALSE(went_on);
  EXPECT_EQ(worker.InterruptState, Worker::Idle);
}

TEST(Interruption, TwoAtOnceEndTheThreadOnce) {
  TEvent never;
  for (int round = 0; round < 20; ++round) {
    Worker worker([&] { never.WaitForSignal(); });
    DebugText debug;
    worker.start_into_body();
    {
      std::jthread const second([&] { worker.interrupt(obey); });
      worker.interrupt(obey);
    }
    EXPECT_TRUE(worker.ended_within(0));
    EXPECT_NE(worker.InterruptState, Worker::Running);
    EXPECT_EQ(debug.text(), "");
  }
}

// Whatever ends the first wait but the thread's end leads on to the interruption.
TEST(Interruption, QueuedCallOfTheCallerCutsTheGraceShort) {
  TEvent never;
  Worker worker([&] { never.WaitForSignal(); });
  worker.start_into_body();
  QueueUserAPC([](ULONG_PTR) {}, GetCurrentThread(), 0);
  Stopwatch const watch;
  worker.InterruptThread(60'000, obey);
  EXPECT_LT(watch.taken(), 30'000u);
  EXPECT_TRUE(worker.ended_within(0));
}

TEST(Interruption, InterruptedThreadRunsAgain) {
  TEvent never;
  Worker worker([&] { never.WaitForSignal(); });
  for (int start = 0; start < 3; ++start) {
    worker.start_into_body();
    worker.InterruptThread(0, obey);
    EXPECT_TRUE(worker.ended_within(0));
    worker.CloseHandle();
  }
  EXPECT_EQ(worker.bodies, 3);
}

// The thread is anywhere between its start and its end.
TEST(Interruption, ThreadIsInterruptedAtWhateverItDoesJustNow) {
  TEvent begin_to_end;
  DebugText debug;
  // The first throw opens handles for good, as do the first threads.
  system_code([] { ThrowSystemException(ERROR_GEN_FAILURE); });
  long before = 0;
  for (int round = 0; round < 150; ++round) {
    if (round == 10) before = open_handles();
    std::atomic<bool> began = false;
    Worker worker([&] {
      began = true;
      begin_to_end.WaitForSignal();
    });
    worker.StartThread();
    for (int i = 0; i < round % 50; ++i) SwitchToThread();
    if (round % 3 == 0) begin_to_end.Set();
    std::jthread const rescuer([&] {
      // A body that fell into the gap was not asked.
      while (!worker.ended_within(20))
        if (began && worker.InterruptState == Worker::InterruptRequested) begin_to_end.Set();
    });
    worker.interrupt(obey);
    EXPECT_TRUE(worker.ended_within(patience));
    EXPECT_NE(worker.InterruptState, Worker::Running);
    begin_to_end.Reset();
  }
  EXPECT_EQ(debug.text(), "");
  EXPECT_TRUE(velt_test::open_handles_fall_to(before));
}

// In the release of a lock, where nothing can be thrown, an interruption waits
// for the next wait; a second one that comes while the first unwinds the stack
// does so too.
TEST(Interruption, ReleaseOfALockIsDoneFirst) {
  OpenLock lock;
  TEvent holding, never;
  Worker worker([&] {
    TLock guard(lock);
    holding.Set();
    never.WaitForSignal();
  });
  worker.start_into_body();
  holding.WaitForSignal();
  lock.hold_inner();
  std::jthread const first([&] { worker.InterruptThread(0, obey); });
  // It is unwinding, and finds the inner lock taken.
  EXPECT_FALSE(worker.ended_within(40));
  std::jthread const second([&] { worker.InterruptThread(0, obey); });
  EXPECT_FALSE(worker.ended_within(40));
  lock.let_inner_go();
  EXPECT_TRUE(worker.ended_within(patience));
  EXPECT_EQ(lock.GetStatusString(), "not_locked");

  bool released = false, went_on = false;
  Worker releasing([&] {
    {
      TLock guard(lock);
      holding.Set();
      ::WaitForSingleObject(never, INFINITE);
    }
    released = true;
    TThread::Pause();
    went_on = true;
  });
  holding.Reset();
  releasing.start_into_body();
  holding.WaitForSignal();
  lock.hold_inner();
  never.Set();
  std::jthread const third([&] { releasing.InterruptThread(0, obey); });
  EXPECT_FALSE(releasing.ended_within(40));
  lock.let_inner_go();
  EXPECT_TRUE(releasing.ended_within(patience));
  EXPECT_TRUE(released);
  EXPECT_FALSE(went_on);
  EXPECT_EQ(lock.GetStatusString(), "not_locked");
}
