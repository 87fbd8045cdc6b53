#include "velt/threads/ThreadClass.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <windows.h>

#include <exception>
#include <functional>
#include <new>
#include <string>
#include <thread>

#include "tests/support/OpenHandles.h"
#include "tests/support/SystemCode.h"
#include "tests/threads/Support.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/CriticalSection.h"
#include "velt/locks/MultiLock.h"
#include "velt/locks/Mutex.h"

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
  static TEvent& began() {
    static TEvent& event = *new TEvent(false, false);
    return event;
  }
  TEvent& in_body = began();
};

// Runs a body to its end.
void run(Worker& worker) {
  worker.StartThread();
  ASSERT_TRUE(worker.ended_within(patience));
}

}  // namespace

TEST(ThreadClass, BodyRunsOnAThreadOfItsOwnWhichEndsWithCode0) {
  DWORD thread = 0;
  Worker worker([&] { thread = GetCurrentThreadId(); });
  EXPECT_FALSE(worker.IsValidHandle());
  run(worker);
  EXPECT_EQ(thread, GetThreadId(worker));
  EXPECT_NE(thread, GetCurrentThreadId());
  EXPECT_EQ(worker.exit_code(), 0u);
}

TEST(ThreadClass, ExceptionThatNobodyCaughtIsWrittenAndEndsTheThreadAlone) {
  struct {
    std::function<void()> body;
    char const* text;
    int exceptions;
  } const rows[] = {
      {[] {}, "", 0},
      {[] { throw EThreadInterrupt(); }, "", 0},
      {[] { throw 5; }, "(!) Thread runaway with unknown exception\n", 1},
      {[] { throw "text"; }, "(!) Thread runaway with unknown exception\n", 1},
      {[] { throw std::bad_alloc(); },
       "(!) Thread runaway with exception std::bad_alloc:std::bad_alloc\n", 1},
      {[] { throw Mishap(""); }, "(!) Thread runaway with exception Mishap:\n", 1},
      {[] { throw Mishap("one line"); }, "(!) Thread runaway with exception Mishap:one line\n", 1},
      {[] { throw Mishap("two\nlines"); },
       "(!) Thread runaway with exception Mishap:\ntwo\nlines\n", 1},
      {[] { throw Mishap("\n"); }, "(!) Thread runaway with exception Mishap:\n\n\n", 1},
      {[] { throw EGeneric({"Text", "No room"}); },
       "(!) Thread runaway with exception EGeneric:No room\n", 1},
      {[] { throw ESystemException(5); },
       "(!) Thread runaway with exception ESystemException:\n"
       "Code: 5 (0x5)\nText: Access denied.\n", 1},
  };
  for (auto const& [body, text, exceptions] : rows) {
    SCOPED_TRACE(text);
    Worker worker(body);
    DebugText debug;
    std::string text_before_handler;
    worker.at_exception = [&] {
      text_before_handler = debug.text();
      EXPECT_EQ(worker.InterruptState, Worker::Idle);
    };
    run(worker);
    EXPECT_EQ(debug.text(), text);
    EXPECT_EQ(text_before_handler, text);
    EXPECT_EQ(worker.exceptions, exceptions);
    EXPECT_EQ(worker.exit_code(), 0u);
    EXPECT_EQ(worker.InterruptState, Worker::Idle);
  }
}

TEST(ThreadClass, FaultInTheBodyIsAnExceptionLikeOthers) {
  Worker worker([] {
    int const volatile* volatile nowhere = reinterpret_cast<int*>(0x10);
    static_cast<void>(*nowhere);
  });
  DebugText debug;
  run(worker);
  EXPECT_TRUE(debug.text().starts_with(
      "(!) Thread runaway with exception EStructuredException:\n"
      "Text: Access Violation (read from 0x10)\nCode: -1073741819 (0xc0000005)\nAddress: "))
      << debug.text();
  EXPECT_EQ(worker.exceptions, 1);
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
  EXPECT_NE(static_cast<void*>(worker), earlier);
  EXPECT_TRUE(signaled_within(earlier, 0));
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

TEST(ThreadClass, StopWaitsForTheEndAndKeepsTheHandle) {
  Worker worker([] { ::Sleep(50); });
  worker.StartThread();
  worker.StopThread(0xFFFFFFFF);
  EXPECT_TRUE(worker.ended_within(0));
  EXPECT_EQ(worker.InterruptState, Worker::Idle);
  worker.StopThread(0);
}

TEST(ThreadClass, StopWithoutTimeKillsAtOnce) {
  bool reached_the_end = false;
  Worker worker([&] {
    ::Sleep(60'000);
    reached_the_end = true;
  });
  worker.start_into_body();
  worker.StopThread(0);
  EXPECT_TRUE(worker.ended_within(1'000));
  EXPECT_FALSE(reached_the_end);
  EXPECT_EQ(worker.exit_code(), 0u);
}

TEST(ThreadClass, QueuedCallEndsAStopWithoutAKill) {
  TEvent end;
  Worker worker([&] { end.WaitForSignal(); });
  worker.start_into_body();
  QueueUserAPC([](ULONG_PTR) {}, GetCurrentThread(), 0);
  worker.StopThread(60'000);
  EXPECT_FALSE(worker.ended_within(20));
  end.Set();
}

TEST(ThreadClass, ThreadThatStopsAnotherCanBeInterrupted) {
  TEvent end;
  Worker worker([&] { end.WaitForSignal(); });
  worker.start_into_body();
  QueueUserAPC([](ULONG_PTR) { throw EThreadInterrupt(); }, GetCurrentThread(), 0);
  EXPECT_THROW(worker.StopThread(60'000), EThreadInterrupt);
  end.Set();
}

TEST(ThreadClass, DestructorKillsAThreadThatRunsOnForASecond) {
  THandle thread;
  ULONGLONG const before = GetTickCount64();
  {
    Sleeper sleeper;
    sleeper.StartThread();
    sleeper.in_body.WaitForSignal();
    thread = sleeper;
  }
  ULONGLONG const taken = GetTickCount64() - before;
  EXPECT_GE(taken, 990u);
  EXPECT_LT(taken, 5'000u);
  EXPECT_TRUE(signaled_within(thread, 1'000));
  DWORD code = 1;
  GetExitCodeThread(thread, &code);
  EXPECT_EQ(code, 0u);
}

// What comes out of the destructor's wait leaves no handle behind, and does not
// end the process where another exception is on its way.
TEST(ThreadClass, InterruptionInTheDestructorComesOutUnlessTheStackUnwinds) {
  THandle thread;
  long const before = open_handles();
  auto const destroy = [&] {
    Sleeper sleeper;
    sleeper.StartThread();
    sleeper.in_body.WaitForSignal();
    thread = sleeper;
    QueueUserAPC([](ULONG_PTR) { throw EThreadInterrupt(); }, GetCurrentThread(), 0);
  };
  EXPECT_THROW(destroy(), EThreadInterrupt);
  EXPECT_FALSE(signaled_within(thread, 0));
  TerminateThread(thread, 0);
  ::WaitForSingleObject(thread, INFINITE);
  thread = nullptr;

  EXPECT_THROW(
      {
        Sleeper sleeper;
        sleeper.StartThread();
        sleeper.in_body.WaitForSignal();
        QueueUserAPC([](ULONG_PTR) { throw EThreadInterrupt(); }, GetCurrentThread(), 0);
        throw Mishap("first");
      },
      Mishap);
  EXPECT_THROW(SleepEx(0, TRUE), EThreadInterrupt);
  EXPECT_TRUE(velt_test::open_handles_fall_to(before));
}

TEST(ThreadClass, KilledThreadLeavesWhatItsBodyHeld) {
  TMutex mutex;
  TCriticalSection section;
  TMultiLock multi_lock;
  bool unwound = false;
  struct Mark {
    ~Mark() { *flag = true; }
    bool* flag;
  };
  bool wait = true;
  Worker worker([&] {
    if (!wait) return;
    Mark const mark{&unwound};
    TEvent never;
    TLock first(mutex), second(section), third(multi_lock);
    ::WaitForSingleObject(never, INFINITE);
  });
  long const before = open_handles();
  worker.start_into_body();
  std::string const held = "locked_write, " + std::to_string(GetThreadId(worker)) + ":W";
  while (multi_lock.GetStatusString() != held) ::Sleep(1);
  worker.StopThread(0);
  EXPECT_TRUE(worker.ended_within(patience));

  EXPECT_FALSE(unwound);
  EXPECT_EQ(open_handles(), before + 2) << "the thread's handle, and the event of its body";
  EXPECT_TRUE(mutex.Lock(0)) << "abandoned, which the kernel knows";
  EXPECT_FALSE(TryEnterCriticalSection(&section));
  EXPECT_EQ(multi_lock.GetStatusString(), held);

  // The state still says that a body runs, which keeps no other from running.
  EXPECT_EQ(worker.InterruptState, Worker::Running);
  wait = false;
  worker.CloseHandle();
  EXPECT_EQ(open_handles(), before + 1) << "the event of its body";
  run(worker);
  EXPECT_EQ(worker.bodies, 2);
  EXPECT_EQ(worker.InterruptState, Worker::Idle);
}

namespace {

// The stack that is left where an overflow is handled, from the frame of the
// handler down to the end.
class Overflow {
public:
  // Overflows the calling thread's stack and returns the bytes that are left.
  static std::size_t provoke() {
    GetCurrentThreadStackLimits(&low, &high);
    left = 0;
    void* const handler = AddVectoredExceptionHandler(1, measure);
    RtlCaptureContext(&way_back);
    if (left == 0) recurse(0);
    RemoveVectoredExceptionHandler(handler);
    _resetstkoflw();
    return left;
  }

private:
  static LONG CALLBACK measure(EXCEPTION_POINTERS* pointers) {
    if (pointers->ExceptionRecord->ExceptionCode != EXCEPTION_STACK_OVERFLOW)
      return EXCEPTION_CONTINUE_SEARCH;
    left = pointers->ContextRecord->Rsp - low;
    *pointers->ContextRecord = way_back;
    return EXCEPTION_CONTINUE_EXECUTION;
  }
  static int recurse(int depth) {
    char volatile room[512];
    room[0] = static_cast<char>(depth);
    return depth < 0 ? 0 : recurse(depth + 1) + room[0];
  }

  static inline ULONG_PTR low, high;
  static inline std::size_t volatile left;
  static inline CONTEXT way_back;
};

}  // namespace

TEST(ThreadClass, OverflowOfTheStackLeavesRoomForHandlingItEachTime) {
  std::size_t left[2] = {};
  Worker worker([&] {
    for (auto& each : left) each = Overflow::provoke();
  });
  run(worker);
  for (std::size_t const each : left) {
    EXPECT_GE(each, 12u * 1024);
    EXPECT_LE(each, 64u * 1024);
  }
}
