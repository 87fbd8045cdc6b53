#include "tests/threads/Support.h"

using namespace velt_test;

namespace {

constexpr unsigned int obey = 20'000;

}  // namespace

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
}

// A call that comes after the body throws no more, and stays as a request.
TEST(Interruption, QueuedCallThatComesAfterTheBodyDoesNotThrow) {
  Worker* self = nullptr;
  TEvent started;
  bool went_on = false;
  Worker worker([&] {
    started.WaitForSingleObject(INFINITE, FALSE);
    self->QueueUserAPC(Worker::ThrowEThreadInterrupt,
                       reinterpret_cast<std::uintptr_t>(static_cast<TThreadClass*>(self)));
    throw 1;
  });
  self = &worker;
  worker.at_exception = [&] {
    TThread::Pause();
    went_on = true;
  };
  worker.StartThread();
  started.Set();
  EXPECT_TRUE(worker.ended_within(patience));
  EXPECT_TRUE(went_on);
  EXPECT_EQ(worker.InterruptState, Worker::InterruptRequested);
}

// Whatever ends the first wait but the thread's end leads on to the interruption,
// such as a queued call of the caller. A start overwrites the earlier handle and does
// not close it. Handlers can be interrupted too.
TEST(Interruption, InterruptedThreadRunsAgainAndOneThatEndsInTimeIsLeftAlone) {
  TEvent end{true, false};
  int ends = 0;
  Worker worker([&] {
    try {
      throw 1;
    } catch (int) {
      end.WaitForSignal();
    }
    ::Sleep(50);
    SleepEx(0, TRUE);
    ++ends;
  });
  DebugText debug;
  for (unsigned int const grace : {0u, 20u, INFINITE, obey}) {
    void* const earlier = worker;
    worker.start_into_body();
    if (grace == INFINITE) queue_for_caller([](ULONG_PTR) {});
    if (grace == obey) end.Set();
    worker.InterruptThread(grace, obey);
    EXPECT_TRUE(worker.ended_within(0));
    EXPECT_EQ(worker.InterruptState, Worker::Idle);
    EXPECT_EQ(ends, grace == obey);
    EXPECT_TRUE(grace == 0 || CloseHandle(earlier));
  }
  worker.InterruptThread(0, 0);
  EXPECT_EQ(worker.InterruptState, Worker::Idle);
  EXPECT_EQ(worker.bodies, 4);
  EXPECT_EQ(worker.exceptions, 0);
  EXPECT_EQ(debug.text(), "");
}
