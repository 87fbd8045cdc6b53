#include "velt/threads/ThreadClass.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <exception>
#include <functional>
#include <string>
#include <thread>

#include "tests/support/OpenHandles.h"
#include "tests/threads/Support.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/MultiLock.h"

using namespace velt_test;

struct Mishap : std::exception {
  explicit Mishap(char const* its_text) : text(its_text) {}
  char const* what() const noexcept override { return text; }
  char const* text;
};

namespace {

// Its destructor is the library's alone.
struct Sleeper final : TThreadClass {
  void ThreadBody() override {
    in_body.Set();
    ::Sleep(60'000);
  }
  static inline TEvent& in_body = *new TEvent(false, false);
};

// Runs a body to its end.
void run(Worker& worker) {
  worker.StartThread();
  ASSERT_TRUE(worker.ended_within(patience));
}

void interrupt_at_next_wait() {
  QueueUserAPC([](ULONG_PTR) { throw EThreadInterrupt(); }, GetCurrentThread(), 0);
}

}  // namespace

TEST(ThreadClass, ExceptionThatNobodyCaughtIsWrittenAndEndsTheThreadAlone) {
  struct {
    std::function<void()> body;
    std::string text;  // behind the same words, if any
  } const rows[] = {
      {[] {}, ""},
      {[] { throw EThreadInterrupt(); }, ""},
      {[] { throw "text"; }, "unknown exception"},
      {[] { throw Mishap(""); }, "exception Mishap:"},
      {[] { throw Mishap("one line"); }, "exception Mishap:one line"},
      {[] { throw Mishap("\n"); }, "exception Mishap:\n\n"},
      {[] { throw EGeneric({"Text", "No room"}); }, "exception EGeneric:No room"},
      {[] { throw ESystemException(5); },
       "exception ESystemException:\nCode: 5 (0x5)\nText: Access denied."},
  };
  for (auto const& [body, text] : rows) {
    SCOPED_TRACE(text);
    std::string const line = text.empty() ? "" : "(!) Thread runaway with " + text + "\n";
    Worker worker(body);
    DebugText debug;
    worker.at_exception = [&] {
      EXPECT_EQ(debug.text(), line);
      EXPECT_EQ(worker.InterruptState, Worker::Idle);
    };
    run(worker);
    EXPECT_EQ(debug.text(), line);
    EXPECT_EQ(worker.exceptions, !text.empty());
    EXPECT_EQ(worker.exit_code(), 0u);
    EXPECT_EQ(worker.InterruptState, Worker::Idle);
  }
}

// A statement of another thread that begins after the first piece waits for the
// last one.
TEST(ThreadClass, LineOfARunawayIsOneStatement) {
  struct SlowWriter : RecordingWriter {
    void StreamWriteString(char const* text, unsigned __int64 size) override {
      RecordingWriter::StreamWriteString(text, size);
      if (!other.joinable()) other = std::thread([] { Debug << "other"; });
      ::Sleep(5);
    }
    std::thread other;
  };
  auto const writer = MakeCounted<SlowWriter>();
  Debug.AddWriter(writer);
  Worker worker([] { throw Mishap("two\nlines"); });
  run(worker);
  writer->other.join();
  Debug.RemoveWriter(writer);
  EXPECT_EQ(writer->all(), "(!) Thread runaway with exception Mishap:\ntwo\nlines\nother");
}

TEST(ThreadClass, EndedThreadCanBeStartedAgainAndItsHandleStaysOpen) {
  Worker worker([] {});
  run(worker);
  void* const earlier = worker;
  run(worker);
  EXPECT_EQ(worker.bodies, 2);
  EXPECT_TRUE(CloseHandle(earlier));
}

TEST(ThreadClass, CopyRefersToTheSameThreadWithTheStateAsItStands) {
  TEvent end;
  Worker worker([&] { end.WaitForSignal(); });
  worker.start_into_body();
  Worker copy = worker, assigned([] {});
  assigned = worker;
  for (Worker* const each : {&copy, &assigned}) {
    EXPECT_EQ(GetThreadId(*each), GetThreadId(worker));
    EXPECT_EQ(each->InterruptState, Worker::Running);
  }
  end.Set();
  EXPECT_TRUE(copy.ended_within(patience));
  EXPECT_EQ(copy.InterruptState, Worker::Running);
}

TEST(ThreadClass, QueuedCallEndsAStopWithoutAKill) {
  TEvent end;
  Worker worker([&] { end.WaitForSignal(); });
  worker.start_into_body();
  QueueUserAPC([](ULONG_PTR) {}, GetCurrentThread(), 0);
  worker.StopThread(60'000);
  interrupt_at_next_wait();
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
    sleeper.StartThread();
    sleeper.in_body.WaitForSignal();
    thread = sleeper;
    interrupt_at_next_wait();
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

TEST(ThreadClass, KilledThreadLeavesWhatItsBodyHeld) {
  TMultiLock lock;
  bool wait = true;
  Worker worker([&] {
    if (!wait) return;
    TEvent never;
    TLock guard(lock);
    ::WaitForSingleObject(never, INFINITE);
  });
  long const before = open_handles();
  worker.start_into_body();
  std::string const held = "locked_write, " + std::to_string(GetThreadId(worker)) + ":W";
  ASSERT_TRUE(eventually([&] { return lock.GetStatusString() == held; }));
  worker.StopThread(0);
  EXPECT_TRUE(worker.ended_within(patience));
  EXPECT_EQ(lock.GetStatusString(), held);
  EXPECT_TRUE(open_handles_fall_to(before + 2)) << "the thread's handle, and the event of its body";

  // The state still says that a body runs, which keeps no other from running.
  EXPECT_EQ(worker.InterruptState, Worker::Running);
  wait = false;
  worker.CloseHandle();
  run(worker);
  EXPECT_EQ(worker.bodies, 2);
  EXPECT_EQ(worker.InterruptState, Worker::Idle);
}
