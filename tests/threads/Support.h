// Threads that a test can look into.
#pragma once

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>

#include "tests/debug/Support.h"
#include "tests/support/Expect.h"
#include "velt/debug/DebugStream.h"
#include "velt/locks/Event.h"
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
    entrance.Set();
    if (!IsValidHandle() || ended_within(patience)) return;
    std::fputs("a thread of a test never ended\n", stderr);
    std::fflush(stderr);
    std::_Exit(1);
  }

  // New threads wait there, not alertably, before they look at the state.
  void close_entrance() { entrance.Reset(); }
  void open_entrance() { entrance.Set(); }

  void start_into_body() {
    in_body.Reset();
    StartThread();
    if (!signaled_within(in_body, patience)) std::abort();
  }

  // Code 31 tells that the thread ended just before the call was queued.
  void interrupt(unsigned int stop_ms) {
    int const code = system_code([&] { InterruptThread(0, stop_ms); });
    if (code == ERROR_GEN_FAILURE)
      EXPECT_TRUE(ended_within(patience));
    else
      EXPECT_EQ(code, -1);
  }

  bool ended_within(DWORD milliseconds) const { return signaled_within(handle, milliseconds); }

  DWORD exit_code() const {
    DWORD code = 12345;
    GetExitCodeThread(handle, &code);
    return code;
  }

  int bodies = 0, exceptions = 0;
  std::function<void()> at_entry, at_exception;

  using TThreadClass::Idle;
  using TThreadClass::InterruptRequested;
  using TThreadClass::InterruptState;
  using TThreadClass::Running;
  using TThreadClass::ThrowEThreadInterrupt;

  void ThreadBody() override {
    ++bodies;
    in_body.Set();
    body();
  }
  void OnException() override {
    ++exceptions;
    if (at_exception) at_exception();
  }

protected:
  void DynamicThreadEntry() override {
    ::WaitForSingleObject(entrance, INFINITE);
    if (at_entry) at_entry();
    TThreadClass::DynamicThreadEntry();
  }

private:
  std::function<void()> body;
  TEvent entrance{true, true}, in_body{true, false};
};

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

}  // namespace velt_test
