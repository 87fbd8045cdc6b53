#include <process.h>
#include <windows.h>

#include <cstdint>

#include "bench/Rows.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/Event.h"
#include "velt/threads/ThreadClass.h"

namespace bench {
namespace {

struct Idler final : TThreadClass {
  void ThreadBody() override {}
};

// One object, started again and again: its destructor would wait for the ended
// thread once more.
void start_and_join() {
  static Idler& thread = *new Idler;
  thread.StartThread();
  thread.StopThread(INFINITE);
  thread.CloseHandle();
}

void wait_and_close(std::uintptr_t thread) {
  auto const handle = reinterpret_cast<HANDLE>(thread);
  WaitForSingleObjectEx(handle, INFINITE, TRUE);
  CloseHandle(handle);
}

unsigned int do_nothing(void*) { return 0; }

void start_and_join_raw() {
  unsigned int id;
  wait_and_close(_beginthreadex(nullptr, 0, do_nothing, nullptr, 0, &id));
}

// A body waits for the event, after it has told that it is there.
HANDLE const in_body = CreateEventW(nullptr, FALSE, FALSE, nullptr);
HANDLE const never = CreateEventW(nullptr, TRUE, FALSE, nullptr);

void tell_and_wait() {
  SetEvent(in_body);
  WaitForSingleObjectEx(never, INFINITE, TRUE);
}

struct Waiter final : TThreadClass {
  void ThreadBody() override { tell_and_wait(); }
};

void interrupt() {
  static Waiter& thread = *new Waiter;
  thread.StartThread();
  WaitForSingleObject(in_body, INFINITE);
  thread.InterruptThread(0, INFINITE);
  thread.CloseHandle();
}

unsigned int wait_until_thrown_out(void*) {
  try {
    tell_and_wait();
  } catch (EThreadInterrupt const&) {
  }
  return 0;
}

void throw_into_raw() {
  unsigned int id;
  auto const thread = _beginthreadex(nullptr, 0, wait_until_thrown_out, nullptr, 0, &id);
  WaitForSingleObject(in_body, INFINITE);
  QueueUserAPC([](ULONG_PTR) { throw EThreadInterrupt(); }, reinterpret_cast<HANDLE>(thread), 0);
  wait_and_close(thread);
}

}  // namespace

std::vector<Row> thread_rows() {
  return {
      {"thread_start_join", loop([] { start_and_join(); }),
       {{"_beginthreadex, wait", 1.05, loop([] { start_and_join_raw(); })}}},

      {"interrupt", loop([] { interrupt(); }),
       {{"raw call that throws", 1.1, loop([] { throw_into_raw(); })}}},
  };
}

}  // namespace bench
