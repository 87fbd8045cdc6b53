#include "velt/threads/ThreadClass.h"

#include "tests/support/OpenHandles.h"
#include "tests/threads/Support.h"
#include "velt/symbols/Symbols.h"

using namespace velt_test;

struct Mishap : std::exception {
  explicit Mishap(char const* its_text) : text(its_text) {}
  char const* what() const noexcept override { return text; }
  char const* text;
};

// A name that the stacks can be searched for.
[[gnu::noinline]] void wait_in_a_function_of_the_test(TEvent& event) {
  event.WaitForSignal();
  asm volatile("");
}

namespace {

constexpr unsigned int obey = 20'000;

// Its destructor is the library's alone.
struct Sleeper final : TThreadClass {
  Sleeper() {
    StartThread();
    in_body.WaitForSignal();
  }
  void ThreadBody() override {
    in_body.Set();
    ::Sleep(60'000);
  }
  static inline TEvent& in_body = *new TEvent(false, false);
};

}  // namespace

TEST(ThreadClass, ExceptionThatNobodyCaughtIsWrittenAndEndsTheThreadAlone) {
  struct {
    std::function<void()> body;
    std::string text;  // behind the same words, if any
  } const rows[] = {
      {[] { throw EThreadInterrupt(); }, ""},
      {[] { throw "text"; }, "unknown exception"},
      {[] { throw Mishap(""); }, "exception Mishap:"},
      {[] { throw Mishap("one line"); }, "exception Mishap:one line"},
      {[] { throw ESystemException(5); },
       "exception ESystemException:\nCode: 5 (0x5)\nText: Access denied."},
  };
  for (auto const& [body, text] : rows) {
    std::string const line = text.empty() ? "" : "(!) Thread runaway with " + text + "\n";
    Worker worker(body);
    DebugText debug;
    worker.at_exception = [&] {
      EXPECT_EQ(debug.text(), line);
      EXPECT_EQ(worker.InterruptState, Worker::Idle);
    };
    worker.StartThread();
    EXPECT_TRUE(worker.ended_within(patience));
    EXPECT_EQ(debug.text(), line);
    EXPECT_EQ(worker.exceptions, !text.empty());
    EXPECT_EQ(worker.InterruptState, Worker::Idle);
  }
}

TEST(ThreadClass, QueuedCallEndsAStopWithoutAKill) {
  TEvent end;
  Worker worker([&] { end.WaitForSignal(); });
  worker.start_into_body();
  queue_for_caller([](ULONG_PTR) {});
  worker.StopThread(60'000);
  interrupt_caller();
  EXPECT_THROW(worker.StopThread(60'000), EThreadInterrupt);
  EXPECT_FALSE(worker.ended_within(20));
  end.Set();
}

// What comes out of the destructor's wait leaves no handle behind, and does not
// end the process where another exception is on its way.
TEST(ThreadClass, InterruptionInTheDestructorComesOutUnlessTheStackUnwinds) {
  THandle thread;
  long const before = open_handles();
  auto const destroy = [&](bool unwinding) {
    Sleeper sleeper;
    thread = sleeper;
    interrupt_caller();
    if (unwinding) throw Mishap("first");
  };
  EXPECT_THROW(destroy(false), EThreadInterrupt);
  EXPECT_FALSE(signaled_within(thread, 0));
  TerminateThread(thread, 0);
  ::WaitForSingleObject(thread, INFINITE);

  EXPECT_THROW(destroy(true), Mishap);
  EXPECT_TRUE(signaled_within(thread, patience)) << "killed after a second";
  thread = nullptr;
  EXPECT_THROW(SleepEx(0, TRUE), EThreadInterrupt);
  EXPECT_TRUE(open_handles_fall_to(before));
}

// The thread is stopped in the middle of the heap again and again: the walk must not
// wait for what it holds.
TEST(ThreadClass, StackShowsWhatTheThreadWaitsInUnlessItHasEndedOrIsSuspended) {
  TEvent end;
  std::atomic<bool> waits = false;
  Worker worker([&] {
    while (!waits) delete new std::string(200, 'x');
    wait_in_a_function_of_the_test(end);
  });
  EXPECT_EQ(worker.GetCurrentStack(), "");
  worker.start_into_body();
  // Each is the first of its engine, which has most to remember.
  for (int i = 0; i < 3; ++i) EXPECT_NE(worker.GetCurrentStack(), "");
  ASSERT_TRUE(SymInitialize());
  waits = true;
  std::string stack;
  ASSERT_TRUE(eventually([&] {
    stack = worker.GetCurrentStack();
    return stack.find("wait_in_a_function_of_the_test") != stack.npos;
  })) << stack;
  EXPECT_TRUE(stack.starts_with("\n-> ")) << stack;
  EXPECT_LT(stack.find("StaticThreadEntry"), stack.find("wait_in_a_function_of_the_test")) << stack;

  worker.SuspendThread();
  EXPECT_EQ(worker.GetCurrentStack(), "");
  EXPECT_EQ(::ResumeThread(worker), 2u) << "suspended once more";
  EXPECT_EQ(::ResumeThread(worker), 1u);
  EXPECT_NE(worker.GetCurrentStack(), "");
  end.Set();
  EXPECT_TRUE(worker.ended_within(patience));
  EXPECT_EQ(worker.GetCurrentStack(), "");
  SymCleanup();
}

TEST(ThreadClass, ObjectThatNeverStartedWaitsOutTheTimeAndNeverRunsABody) {
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
TEST(ThreadClass, QueuedCallThatComesAfterTheBodyDoesNotThrow) {
  TEvent started;
  bool went_on = false;
  Worker worker([&] {
    started.WaitForSingleObject(INFINITE, FALSE);
    TThreadClass* const self = &worker;
    worker.QueueUserAPC(Worker::ThrowEThreadInterrupt, reinterpret_cast<std::uintptr_t>(self));
    throw 1;
  });
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
TEST(ThreadClass, InterruptedThreadRunsAgainAndOneThatEndsInTimeIsLeftAlone) {
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
