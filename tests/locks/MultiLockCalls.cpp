// Built with the sources of TMultiLock in the program itself, so that all that
// they call can be counted, and made to fail, at link time.
#include "tests/locks/MultiLockCalls.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <new>
#include <string>

#include "tests/locks/Agent.h"
#include "tests/locks/OpenLock.h"
#include "velt/exceptions/ExceptionFamily.h"

using velt_test::Agent;
using velt_test::OpenLock;

std::atomic<int> velt_test::events_set = 0;

namespace {

// Calls of the platform and of the allocator by one thread.
DWORD counted_thread = 0;
int calls = 0;

void count() {
  if (GetCurrentThreadId() == counted_thread) ++calls;
}

template <class Statement>
int calls_in(Statement statement) {
  calls = 0;
  counted_thread = GetCurrentThreadId();
  statement();
  counted_thread = 0;
  return calls;
}

thread_local bool fail_event = false, fail_wait = false, fail_timer = false, fail_memory = false;

template <class Statement>
auto with_failure(bool& failure, Statement statement) {
  failure = true;
  int code = 0;
  try {
    statement();
  } catch (ESystemException const& e) {
    code = e["Code"].as_int();
  }
  failure = false;
  return code;
}

}  // namespace

extern "C" {

// Each as the sources see it, and what it stands for.
#define COUNTED(result, name, parameters, arguments)    \
  extern result(WINAPI* __real___imp_##name) parameters; \
  static result WINAPI counted_##name parameters {       \
    count();                                             \
    return __real___imp_##name arguments;                \
  }                                                      \
  result(WINAPI* __wrap___imp_##name) parameters = counted_##name;

COUNTED(BOOL, CloseHandle, (HANDLE h), (h))
COUNTED(BOOL, ResetEvent, (HANDLE h), (h))
COUNTED(DWORD, SleepEx, (DWORD time, BOOL alertable), (time, alertable))
COUNTED(HANDLE, CreateWaitableTimerW, (LPSECURITY_ATTRIBUTES s, BOOL manual, LPCWSTR name),
        (s, manual, name))
#undef COUNTED

extern BOOL(WINAPI* __real___imp_SetEvent)(HANDLE);
static BOOL WINAPI counted_SetEvent(HANDLE event) {
  count();
  ++velt_test::events_set;
  return __real___imp_SetEvent(event);
}
BOOL(WINAPI* __wrap___imp_SetEvent)(HANDLE) = counted_SetEvent;

extern HANDLE(WINAPI* __real___imp_CreateEventW)(LPSECURITY_ATTRIBUTES, BOOL, BOOL, LPCWSTR);
static HANDLE WINAPI counted_CreateEventW(LPSECURITY_ATTRIBUTES s, BOOL manual, BOOL initial,
                                          LPCWSTR name) {
  count();
  return fail_event ? nullptr : __real___imp_CreateEventW(s, manual, initial, name);
}
HANDLE(WINAPI* __wrap___imp_CreateEventW)
(LPSECURITY_ATTRIBUTES, BOOL, BOOL, LPCWSTR) = counted_CreateEventW;

extern DWORD(WINAPI* __real___imp_WaitForSingleObjectEx)(HANDLE, DWORD, BOOL);
static DWORD WINAPI counted_WaitForSingleObjectEx(HANDLE h, DWORD time, BOOL alertable) {
  count();
  return __real___imp_WaitForSingleObjectEx(h, time, alertable);
}
DWORD(WINAPI* __wrap___imp_WaitForSingleObjectEx)
(HANDLE, DWORD, BOOL) = counted_WaitForSingleObjectEx;

extern DWORD(WINAPI* __real___imp_WaitForMultipleObjectsEx)(DWORD, HANDLE const*, BOOL, DWORD,
                                                            BOOL);
static DWORD WINAPI counted_WaitForMultipleObjectsEx(DWORD n, HANDLE const* handles, BOOL all,
                                                     DWORD time, BOOL alertable) {
  count();
  if (fail_wait) {
    SetLastError(ERROR_NOT_ENOUGH_QUOTA);
    return WAIT_FAILED;
  }
  return __real___imp_WaitForMultipleObjectsEx(n, handles, all, time, alertable);
}
DWORD(WINAPI* __wrap___imp_WaitForMultipleObjectsEx)
(DWORD, HANDLE const*, BOOL, DWORD, BOOL) = counted_WaitForMultipleObjectsEx;

extern BOOL(WINAPI* __real___imp_SetWaitableTimer)(HANDLE, LARGE_INTEGER const*, LONG,
                                                   PTIMERAPCROUTINE, LPVOID, BOOL);
static BOOL WINAPI counted_SetWaitableTimer(HANDLE timer, LARGE_INTEGER const* due, LONG period,
                                            PTIMERAPCROUTINE routine, LPVOID argument,
                                            BOOL resume) {
  count();
  if (fail_timer) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  return __real___imp_SetWaitableTimer(timer, due, period, routine, argument, resume);
}
BOOL(WINAPI* __wrap___imp_SetWaitableTimer)
(HANDLE, LARGE_INTEGER const*, LONG, PTIMERAPCROUTINE, LPVOID, BOOL) = counted_SetWaitableTimer;

void* __real_malloc(std::size_t);
void* __wrap_malloc(std::size_t size) {
  count();
  // The optimiser calls this for a reallocation of nothing.
  return fail_memory ? nullptr : __real_malloc(size);
}
void* __real_realloc(void*, std::size_t);
void* __wrap_realloc(void* block, std::size_t size) {
  count();
  return fail_memory ? nullptr : __real_realloc(block, size);
}
// _Znwy is operator new.
void* __real__Znwy(std::size_t size);
void* __wrap__Znwy(std::size_t size) {
  count();
  return __real__Znwy(size);
}

}

TEST(MultiLockCalls, UncontendedLockCallsNeitherPlatformNorAllocator) {
  EXPECT_EQ(calls_in([] {
              TMultiLock lock;
              for (int i = 0; i < 3; ++i) {
                lock.ReadLock();
                lock.Unlock();
                lock.WriteLock(0);
                lock.Unlock();
                lock.ReadLock();
                lock.WriteLock();
                lock.Unlock();
                lock.Unlock();
                lock.WriteLock(500);
                lock.ReadLock(500);
                lock.Unlock();
                lock.Unlock();
                lock.WriteLockThreadIndependent();
                lock.ReadLockThreadIndependent(0);
                lock.UnlockThreadIndependent();
              }
            }),
            0);
}

TEST(MultiLockCalls, QuestionWithoutAWaitCallsNothingAndAWaitMakesItsObjectsOnce) {
  TMultiLock lock;
  Agent a("A");
  a.run([&] { lock.WriteLock(); });
  EXPECT_EQ(calls_in([&] { EXPECT_FALSE(lock.ReadLock(0)); }), 0);
  // Two events, the timer made, set and closed, the wait; then without the events.
  EXPECT_EQ(calls_in([&] { EXPECT_FALSE(lock.ReadLock(1)); }), 6);
  EXPECT_EQ(calls_in([&] { EXPECT_FALSE(lock.ReadLock(1)); }), 4);
  a.run([&] { lock.Unlock(); });
}

TEST(MultiLockCalls, ListGrowsByOneAndStaysSoGrown) {
  TMultiLock lock;
  auto const take_and_end = [&lock](int holds) {
    for (int i = 0; i < holds; ++i) lock.ReadLock();
    for (int i = 0; i < holds; ++i) lock.Unlock();
  };
  EXPECT_EQ(calls_in([&] { take_and_end(2); }), 0);
  EXPECT_EQ(calls_in([&] { take_and_end(3); }), 1);
  EXPECT_EQ(calls_in([&] { take_and_end(7); }), 4);
  EXPECT_EQ(calls_in([&] { take_and_end(7); }), 0);
}

TEST(MultiLockCalls, FailedUpgradeWaitStaysCounted) {
  TMultiLock lock;
  Agent a("A"), b("B");
  a.run([&] { lock.ReadLock(); });
  b.run([&] { lock.ReadLock(); });
  EXPECT_EQ(a.ask([&] { return with_failure(fail_wait, [&] { lock.WriteLock(); }); }),
            ERROR_NOT_ENOUGH_QUOTA);
  EXPECT_TRUE(lock.GetStatusString().ends_with(", 1 r->w waiters"));
  EXPECT_THROW(b.run([&] { lock.WriteLock(0); }), EGeneric);
  b.run([&] { lock.Unlock(); });
  a.run([&] { lock.WriteLock(0); });
}

TEST(MultiLockCalls, FailedEventShowsInTheWait) {
  TMultiLock lock;
  Agent a("A"), b("B");
  a.run([&] { lock.WriteLock(); });
  EXPECT_EQ(b.ask([&] { return with_failure(fail_event, [&] { lock.WriteLock(); }); }),
            ERROR_INVALID_HANDLE);
  EXPECT_FALSE(b.ask([&] { return lock.WriteLock(20); }));
  a.run([&] { lock.Unlock(); });
  b.run([&] { lock.WriteLock(0); });
  EXPECT_EQ(lock.GetStatusString(), "locked_write, " + b.id_text() + ":W");
}

// The settled exceptions to the rule that a failed lock stays usable.
TEST(MultiLockCalls, NoMemoryForAHoldLeavesTheInnerLockTaken) {
  OpenLock lock;
  Agent a("A");
  lock.ReadLock();
  lock.ReadLock();
  fail_memory = true;
  try {
    lock.ReadLock();
    ADD_FAILURE() << "did not throw";
  } catch (std::bad_alloc const& e) {
    EXPECT_STREQ(e.what(), "bad allocation");
  }
  fail_memory = false;
  a.start([&] { lock.ReadLock(0); });
  EXPECT_TRUE(a.waits());
  lock.let_inner_go();
  a.finish();
}

TEST(MultiLockCalls, TimerThatCannotBeSetLeavesTheInnerLockTaken) {
  OpenLock lock;
  Agent a("A");
  lock.WriteLock();
  EXPECT_EQ(a.ask([&] { return with_failure(fail_timer, [&] { lock.ReadLock(50); }); }),
            ERROR_INVALID_PARAMETER);
  a.start([&] { lock.ReadLock(0); });
  EXPECT_TRUE(a.waits());
  lock.let_inner_go();
  a.finish();
}
