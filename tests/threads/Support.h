// Threads and pools that a test can look into.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>

#include "tests/debug/Support.h"
#include "velt/debug/DebugStream.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/Event.h"
#include "velt/threads/PoolGuard.h"
#include "velt/threads/ThreadClass.h"

namespace velt_test {

constexpr DWORD patience = 30'000;

inline bool signaled_within(void* handle, DWORD milliseconds) {
  return ::WaitForSingleObject(handle, milliseconds) == WAIT_OBJECT_0;
}

// For what other threads are about to bring about.
template <class Condition>
bool eventually(Condition condition) {
  ULONGLONG const end = GetTickCount64() + patience;
  while (!condition()) {
    if (GetTickCount64() > end) return false;
    ::Sleep(1);
  }
  return true;
}

// A thread whose body is a function of the test's.
class Worker final : public TThreadClass {
public:
  explicit Worker(std::function<void()> its_body) : body(std::move(its_body)) {}

  // A thread that outlives its object would do anything: the program ends.
  ~Worker() {
    if (!IsValidHandle() || ended_within(patience)) return;
    std::fputs("a thread of a test never ended\n", stderr);
    std::_Exit(1);
  }

  void start_into_body() {
    in_body.Reset();
    StartThread();
    if (!signaled_within(in_body, patience)) std::abort();
  }
  bool ended_within(DWORD milliseconds) const { return signaled_within(handle, milliseconds); }

  int bodies = 0, exceptions = 0;
  std::function<void()> at_exception = [] {};

  using TThreadClass::Idle;
  using TThreadClass::InterruptRequested;
  using TThreadClass::InterruptState;
  using TThreadClass::ThrowEThreadInterrupt;

  void ThreadBody() override {
    ++bodies;
    in_body.Set();
    body();
  }
  void OnException() override {
    ++exceptions;
    at_exception();
  }

private:
  std::function<void()> body;
  TEvent in_body{true, false};
};

inline void queue_for_caller(PAPCFUNC call) { QueueUserAPC(call, GetCurrentThread(), 0); }
inline void interrupt_caller() {
  queue_for_caller([](ULONG_PTR) { throw EThreadInterrupt(); });
}

// What is written to the stream Debug while it lives.
class DebugText {
public:
  DebugText() : writer(MakeCounted<RecordingWriter>()) { Debug.AddWriter(writer); }
  DebugText(DebugText const&) = delete;
  ~DebugText() { Debug.RemoveWriter(writer); }

  std::string text() const { return writer->all(); }

private:
  SmartPtr<RecordingWriter> writer;
};

// Of all threads. Each throw can get a dump, and the last one is the one that is kept.
template <class Statement>
int throws_during(Statement statement) {
  static std::atomic<int> count;
  count = 0;
  void* const handler = AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS* pointers) -> LONG {
    count += pointers->ExceptionRecord->ExceptionCode == 0x20474343;
    return EXCEPTION_CONTINUE_SEARCH;
  });
  statement();
  RemoveVectoredExceptionHandler(handler);
  return count;
}

struct Job : IThreadJob {
  explicit Job(std::function<void()> its_work) : work(std::move(its_work)) {}
  void Run(SmartPtr<IThreadContext> const&) override { work(); }
  std::function<void()> work;
};
inline SmartPtr<IThreadJob> job(std::function<void()> work) {
  return MakeCounted<Job>(std::move(work));
}

// Jobs that wait until they are let go, and can be interrupted meanwhile.
struct Gate {
  void wait() {
    thread = GetCurrentThread();
    ++inside;
    open.WaitForSignal();
  }
  SmartPtr<IThreadJob> job() {
    return velt_test::job([this] { wait(); });
  }
  std::atomic<int> inside = 0;
  THandle thread;  // of the last
  TEvent open{true, false};
};

using PoolCounts = std::array<int, 4>;  // running jobs, threads, queued jobs, idle threads

struct TestPool : TThreadPoolGuard {
  TestPool(int max, int min, int limit = 1'000)
      : TThreadPoolGuard(CreateNewThreadPool(max, min, 0, limit)) {}

  PoolCounts counts() const {
    PoolCounts counts{};
    std::string const line = get()->describe();
    std::sscanf(line.c_str() + line.find(" RunningJobs"),
                " RunningJobs=%d Threads=%d Queue=%d Idle=%d", &counts[0], &counts[1], &counts[2],
                &counts[3]);
    return counts;
  }
  ::testing::AssertionResult become(PoolCounts expected) const {
    if (eventually([&] { return counts() == expected; })) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << get()->describe();
  }
};

}  // namespace velt_test
