#include "velt/locks/MultiLock.h"

#include <atomic>
#include <string>
#include <vector>

#include "tests/locks/LockTest.h"
#include "tests/support/Expect.h"
#include "tests/support/Imports.h"
#include "velt/time/Stopwatches.h"

using namespace velt_test;

VELT_WATCH(CloseHandle, CreateEventW, CreateWaitableTimerW, ResetEvent, SetEvent, SetWaitableTimer,
           SleepEx, WaitForMultipleObjectsEx, WaitForSingleObjectEx);

namespace {

constexpr Call<void* (*)(std::size_t)> call_of_malloc{"malloc"}, call_of_new{"_Znwy"};
constexpr Call<void* (*)(void*, std::size_t)> call_of_realloc{"realloc"};

using MultiLock = LockTest<OpenLock>;

}  // namespace

TEST_F(MultiLock, UnlockRemovesTheNewestHoldOfItsOwnerFromTheMiddle) {
  for (Agent* const each : {&a, &b, &a, &b, &c}) by(*each, "R");
  lock.ReadLockThreadIndependent();
  by(a, "U");
  EXPECT_EQ(status(), "locked_read, A:R,B:R,B:R,C:R,0:R");
  by(a, "UU");
  b.run([&] { lock.UnlockThreadIndependent(); });
  EXPECT_EQ(status(), "locked_read, B:R,B:R,C:R");
  lock.UnlockThreadIndependent();
  by(b, "UU");
  by(c, "U");
  EXPECT_EQ(status(), "not_locked");
}

TEST_F(MultiLock, LimitBeginsAnewAfterAWakeUpAndNotAfterAQueuedCall) {
  std::vector<DWORD> ends{WAIT_IO_COMPLETION, WAIT_OBJECT_0, WAIT_IO_COMPLETION, WAIT_OBJECT_0};
  Replacement const waits{VELT_CALL(WaitForMultipleObjectsEx), [&](auto platform, auto... rest) {
                            if (ends.empty()) return platform(rest...);
                            DWORD const end = ends.back();
                            ends.pop_back();
                            return end;
                          }};
  std::vector<__int64> limits;
  Replacement const timers{VELT_CALL(SetWaitableTimer),
                           [&](auto platform, HANDLE timer, auto due, auto... rest) {
                             limits.push_back(due->QuadPart);
                             return platform(timer, due, rest...);
                           }};
  by(a, "W");
  EXPECT_FALSE(b.ask([&] { return lock.ReadLock(20); }));
  EXPECT_EQ(limits.size(), 3u);
  _pcounter_t const watch;
  EXPECT_FALSE(lock.WriteLock(20));
  by(a, "UR");
  lock.ReadLock();
  EXPECT_FALSE(lock.WriteLock(20));
  EXPECT_GE(watch.get_elapsed(), 0.038);  // the timer's clock is not the watch's
  EXPECT_EQ(limits, std::vector<__int64>(5, -200'000));
}

// Nobody else waits who could take up a wake-up that was lost.
TEST_F(MultiLock, NoWakeUpOfManyIsLost) {
  constexpr int rounds = 200;
  std::atomic<int> waiting;
  int passed = 0;
  Replacement const waits{VELT_CALL(WaitForMultipleObjectsEx), [&](auto platform, auto... rest) {
                            ++waiting;
                            return platform(rest...);
                          }};
  auto const hand_over = [&](Agent& holder, char const* letters, Agent& waiter,
                             bool (OpenLock::*wait)(unsigned int)) {
    waiting = 0;
    waiter.start([&] { passed += (lock.*wait)(5'000); });
    while (!waiting && waiter.waits(0)) Sleep(0);
    by(holder, letters);
    waiter.finish();
  };
  for (int round = 0; round < rounds && passed == 3 * round; ++round) {
    // So that a signal that is lost each so many times is now and then one of those below.
    for (int i = 0; i < round % 3; ++i) by(a, "RWUU");
    by(a, "RW");
    hand_over(a, "U", b, &OpenLock::ReadLock);    // at the end of an upgrade
    hand_over(a, "U", b, &OpenLock::WriteLock);   // to the sole owner
    hand_over(b, "UU", a, &OpenLock::WriteLock);  // of a free lock
    by(a, "U");
  }
  EXPECT_EQ(passed, 3 * rounds);
}

// Between any two instructions another thread may take the inner lock if it is free.
TEST_F(MultiLock, StateFitsTheHoldsWheneverTheInnerLockIsFree) {
  static OpenLock* stepped;
  static int looks, torn;
  stepped = &lock;
  looks = torn = 0;
  constexpr unsigned int trap_flag = 0x100;
  void* const handler = AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS* at) -> LONG {
    if (at->ExceptionRecord->ExceptionCode != DWORD{EXCEPTION_SINGLE_STEP})
      return EXCEPTION_CONTINUE_SEARCH;
    ++looks;
    torn += stepped && stepped->is_torn();
    if (stepped) at->ContextRecord->EFlags |= trap_flag;
    return EXCEPTION_CONTINUE_EXECUTION;
  });
  __builtin_ia32_writeeflags_u64(__builtin_ia32_readeflags_u64() | trap_flag);
  steps("RRUUWURWUUWRUU");
  lock.ReadLockThreadIndependent();
  lock.UnlockThreadIndependent();
  lock.WriteLockThreadIndependent();
  lock.UnlockThreadIndependent();
  stepped = nullptr;
  RemoveVectoredExceptionHandler(handler);
  EXPECT_GT(looks, 500);
  EXPECT_EQ(torn, 0);
}

// The release of a guard amid the unwinding of an exception could not throw.
TEST_F(MultiLock, QueuedCallWaitsUntilAReleaseIsDone) {
  by(a, "W");
  lock.hold_inner();
  start(a, "U");
  a.interrupt();
  EXPECT_TRUE(a.waits());
  lock.let_inner_go();
  a.finish();
  EXPECT_EQ(status(), "not_locked");
}

// One wake-up is all that the end of the last hold gives: whoever got it and
// then ends by an exception must hand it on.
TEST_F(MultiLock, WokenWaiterThatIsInterruptedPassesTheWakeUpOn) {
  by(a, "W");
  start(b, "W");
  start(c, "W");
  a.run([&] { lock.unlock_and_keep_inner(); });
  EXPECT_TRUE(b.waits());
  EXPECT_TRUE(c.waits());
  b.interrupt();
  EXPECT_THROW(b.finish(), Interrupted);
  lock.let_inner_go();
  c.finish();
  EXPECT_EQ(status(), "locked_write, C:W");
}

// Nor after contention, as long as nobody waits.
TEST_F(MultiLock, UncontendedLockCallsNeitherPlatformNorAllocator) {
  int allocations = 0;
  auto const count = [&](auto call, auto... arguments) {
    ++allocations;
    return call(arguments...);
  };
  for (int round = 0; round < 3; ++round) {
    {
      Watch watch;
      Replacement const blocks{call_of_malloc, count};
      Replacement const longer_blocks{call_of_realloc, count};
      Replacement const objects{call_of_new, [&](auto... rest) { return count(rest...); }};
      allocations = 0;
      for (int i = 0; i < 3; ++i) {
        steps("RURWUU");
        EXPECT_TRUE(lock.WriteLock(500) && lock.ReadLock(500));
        steps("UU");
        lock.WriteLockThreadIndependent();
        EXPECT_FALSE(lock.ReadLockThreadIndependent(0));
        lock.UnlockThreadIndependent();
      }
      EXPECT_EQ(allocations, 0);
      EXPECT_EQ(watch.calls, "");
    }
    // Readers that wait for the end of a write hold and for that of the last hold.
    steps("RW");
    EXPECT_FALSE(a.ask([&] { return lock.ReadLock(1); }));
    start(b, "R");
    steps("U");
    b.finish();
    steps("U");
    by(b, "U");
  }
}
