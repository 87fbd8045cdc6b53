// Built with the sources of TMultiLock in the program itself, so that all that
// they call can be counted, and made to fail, at link time.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>

#include "tests/locks/Agent.h"
#include "tests/locks/OpenLock.h"
#include "tests/support/Expect.h"
#include "velt/exceptions/ExceptionFamily.h"

using velt_test::Agent;
using velt_test::OpenLock;

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

// What fails on this thread: a call of the platform by its name, or the memory.
thread_local char const* failing = "";
thread_local DWORD failure = 0;
thread_local bool fail_memory = false;

// The code of the exception when `call` fails with `code`.
template <class Statement>
int code_with_failure(char const* call, DWORD code, Statement statement) {
  failing = call;
  failure = code;
  int const result = velt_test::system_code(statement);
  failing = "";
  return result;
}

template <class Function>
struct counted;
template <class Answer, class... Parameters>
struct counted<Answer(WINAPI*)(Parameters...)> {
  template <auto const& name, auto& real>
  static Answer WINAPI call(Parameters... arguments) {
    count();
    if (name != std::string_view(failing)) return real(arguments...);
    SetLastError(failure);
    if constexpr (std::is_same_v<Answer, DWORD>)
      return WAIT_FAILED;
    else
      return Answer();
  }
};

}  // namespace

// Each as the sources see it, and what it stands for.
#define COUNTED(CALL)                                      \
  extern "C" decltype(&CALL) __real___imp_##CALL;          \
  static constexpr char name_of_##CALL[] = #CALL;          \
  extern "C" decltype(&CALL) __wrap___imp_##CALL;          \
  decltype(&CALL) __wrap___imp_##CALL =                    \
      counted<decltype(&CALL)>::call<name_of_##CALL, __real___imp_##CALL>;

COUNTED(CloseHandle)
COUNTED(CreateEventW)
COUNTED(CreateWaitableTimerW)
COUNTED(ResetEvent)
COUNTED(SetEvent)
COUNTED(SetWaitableTimer)
COUNTED(SleepEx)
COUNTED(WaitForMultipleObjectsEx)
COUNTED(WaitForSingleObjectEx)

extern "C" {

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
                EXPECT_TRUE(lock.WriteLock(500) && lock.ReadLock(500));
                lock.Unlock();
                lock.Unlock();
                lock.ReadLock();
                lock.WriteLock();
                lock.Unlock();
                lock.Unlock();
                lock.WriteLockThreadIndependent();
                EXPECT_FALSE(lock.ReadLockThreadIndependent(0));
                lock.UnlockThreadIndependent();
              }
            }),
            0);
}

TEST(MultiLockCalls, FailedUpgradeWaitStaysCounted) {
  TMultiLock lock;
  Agent a("A"), b("B");
  a.run([&] { lock.ReadLock(); });
  b.run([&] { lock.ReadLock(); });
  EXPECT_EQ(a.ask([&] {
              return code_with_failure("WaitForMultipleObjectsEx", ERROR_NOT_ENOUGH_QUOTA,
                                       [&] { lock.WriteLock(); });
            }),
            ERROR_NOT_ENOUGH_QUOTA);
  EXPECT_TRUE(lock.GetStatusString().ends_with(", 1 r->w waiters"));
  EXPECT_THROW(b.ask([&] { return lock.WriteLock(0); }), EDeadLockException);
  b.run([&] { lock.Unlock(); });
  EXPECT_TRUE(a.ask([&] { return lock.WriteLock(0); }));
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
  a.start([&] { EXPECT_TRUE(lock.ReadLock(0)); });
  EXPECT_TRUE(a.waits());
  lock.let_inner_go();
  a.finish();
}

TEST(MultiLockCalls, TimerThatCannotBeSetLeavesTheInnerLockTaken) {
  OpenLock lock;
  Agent a("A");
  lock.WriteLock();
  EXPECT_EQ(a.ask([&] {
              return code_with_failure("SetWaitableTimer", ERROR_INVALID_PARAMETER,
                                       [&] { (void)lock.ReadLock(50); });
            }),
            ERROR_INVALID_PARAMETER);
  a.start([&] { EXPECT_FALSE(lock.ReadLock(0)); });
  EXPECT_TRUE(a.waits());
  lock.let_inner_go();
  a.finish();
}
