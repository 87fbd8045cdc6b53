#include <thread>

#include "tests/threads/Support.h"

using namespace velt_test;

namespace {

constexpr unsigned int obey = 20'000;

}  // namespace

TEST(Interruption, ThreadThatEndsInTimeIsLeftAlone) {
  bool reached_the_end = false;
  Worker worker([&] {
    ::Sleep(50);
    SleepEx(0, TRUE);
    reached_the_end = true;
  });
  worker.start_into_body();
  for (unsigned int const grace : {obey, 0u}) worker.InterruptThread(grace, 0);
  EXPECT_TRUE(reached_the_end);
  EXPECT_EQ(worker.InterruptState, Worker::Idle);
}

TEST(Interruption, ObjectThatNeverStartedWaitsOutTheTimeAndNeverRunsABody) {
  Worker worker([] {});
  ULONGLONG const before = GetTickCount64();
  worker.InterruptThread(60, obey);
  EXPECT_GE(GetTickCount64() - before, 55u);
  for (int start = 0; start < 2; ++start) {
    EXPECT_EQ(worker.InterruptState, Worker::InterruptRequested);
    worker.StartThread();
    EXPECT_TRUE(worker.ended_within(patience));
    worker.CloseHandle();
  }
  EXPECT_EQ(worker.bodies, 0);
  EXPECT_EQ(worker.InterruptState, Worker::InterruptRequested);
}

// The body begins between the two steps with which InterruptThread() finds no
// body and says so: it goes on unasked. What the first step found is set here by
// hand.
TEST(Interruption, BodyThatBeginsInTheGapRunsToItsEndOrIsKilled) {
  for (bool const in_time : {true, false}) {
    TEvent end;
    bool reached_the_end = false;
    Worker worker([&] {
      end.WaitForSignal();
      reached_the_end = true;
    });
    worker.start_into_body();
    worker.InterruptState = Worker::Idle;
    std::jthread const ender([&] {
      while (worker.InterruptState != Worker::InterruptRequested) ::Sleep(1);
      if (in_time) end.Set();
    });
    worker.InterruptThread(0, in_time ? obey : 50);
    EXPECT_TRUE(worker.ended_within(1'000));
    EXPECT_EQ(reached_the_end, in_time);
    EXPECT_EQ(worker.InterruptState, Worker::InterruptRequested);
  }
}

// A call that comes after the body throws no more, and stays as a request.
TEST(Interruption, ThreadCanInterruptItself) {
  for (bool const throws : {false, true}) {
    Worker* self = nullptr;
    bool went_on = false;
    Worker worker([&] {
      if (!throws) self->InterruptThread(0, obey);
      self->QueueUserAPC(Worker::ThrowEThreadInterrupt, reinterpret_cast<std::uintptr_t>(
                                                            static_cast<TThreadClass*>(self)));
      throw 1;
    });
    self = &worker;
    worker.at_exception = [&] {
      TThread::Pause();
      went_on = true;
    };
    worker.entrance.Reset();
    worker.StartThread();
    worker.entrance.Set();
    EXPECT_TRUE(worker.ended_within(patience));
    EXPECT_EQ(went_on, throws);
    EXPECT_EQ(worker.InterruptState, throws ? Worker::InterruptRequested : Worker::Idle);
  }
}

// Whatever ends the first wait but the thread's end leads on to the interruption,
// such as a queued call of the caller. A start overwrites the earlier handle and does
// not close it.
TEST(Interruption, InterruptedThreadRunsAgain) {
  TEvent never;
  Worker worker([&] {
    never.WaitForSignal();
    throw 1;
  });
  DebugText debug;
  for (unsigned int const grace : {0u, 20u, INFINITE}) {
    void* const earlier = worker;
    worker.start_into_body();
    if (grace == INFINITE) queue_for_caller([](ULONG_PTR) {});
    worker.InterruptThread(grace, obey);
    EXPECT_TRUE(worker.ended_within(0));
    EXPECT_EQ(worker.InterruptState, Worker::Idle);
    EXPECT_TRUE(grace == 0 || CloseHandle(earlier));
  }
  EXPECT_EQ(worker.bodies, 3);
  EXPECT_EQ(worker.exceptions, 0);
  EXPECT_EQ(debug.text(), "");
}
