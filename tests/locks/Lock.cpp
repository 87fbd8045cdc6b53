// What stands on any lock, the guards and the adaptor that measures, and the
// critical section.
#include "velt/locks/Lock.h"

#include <windows.h>

#include <cmath>
#include <string>

#include "tests/locks/LockTest.h"
#include "tests/support/Expect.h"
#include "tests/support/Imports.h"
#include "velt/locks/CriticalSection.h"
#include "velt/locks/Mutex.h"
#include "velt/locks/TimedLock.h"
#include "velt/time/Stopwatches.h"

using namespace velt_test;

static_assert(sizeof(TLock) == sizeof(void*) && sizeof(TReadLock) == sizeof(void*));

using Guard = LockTest<TMultiLock>;
using TimedLock = LockTest<TMultiLock>;

TEST_F(Guard, HoldsTheLockForTheScopeAndReleasesItOnce) {
  TMultiLock const& constant = lock;
  a.run([&] {
    TReadLock const reading(lock), of_constant(constant), limited(constant, 5);
    {
      TLock const untimed[] = {lock, &lock, constant, &constant};
      TLock const timed[] = {{lock, 1}, {&lock, 2}, {constant, 3}, {&constant, 0xFFFFFFFF}};
      EXPECT_EQ(status(), "locked_write, A:R,A:R,A:R,A:W,A:W,A:W,A:W,A:W,A:W,A:W,A:W");
    }
    TLock guard(lock);
    EXPECT_TRUE(guard.Lock(7));
    TReadLock last(lock);
    for (int time = 0; time < 2; ++time) last.Unlock(), guard.Unlock();
    EXPECT_EQ(status(), "locked_write, A:R,A:R,A:R,A:W");
    lock.Unlock();
  });
  EXPECT_EQ(status(), "not_locked");
}

TEST_F(Guard, RefusalUnlocksNothing) {
  by(a, "R");
  b.run([&] {
    TReadLock const reading(lock);
    EXPECT_EQ(system_code([&] { TLock guard(lock, 0); }), 258);
  });
  by(a, "UW");
  EXPECT_EQ(b.ask([&] { return system_code([&] { TReadLock guard(lock, 0); }); }), 258);
  EXPECT_EQ(status(), "locked_write, A:W");
}

TEST(GuardOfAMutex, PassesAFailureOfUnlockOutAndGoesOnHolding) {
  constexpr int not_owner = 288;
  TMutex mutex;
  EXPECT_EQ(system_code([&] {
    TLock guard(mutex);
    mutex.Unlock();
    EXPECT_EQ(system_code([&] { guard.Unlock(); }), not_owner);
  }), not_owner);
}

TEST_F(TimedLock, ForwardsEveryOperationAndSumsUpBusyAndIdleTime) {
  __int64 now = 1'000;
  Replacement const clock{VELT_CALL(QueryPerformanceCounter),
                          [&](auto, LARGE_INTEGER* place) -> BOOL {
                            place->QuadPart = now;
                            return TRUE;
                          }};
  TTimedLock timed(lock);
  EXPECT_TRUE(std::isnan(timed.get_busy())) << "within the tick of its construction";
  by(a, "W");
  now += 30;
  EXPECT_FALSE(timed.Lock(0) || timed.ReadLock(0) || timed.WriteLock(0) ||
               timed.ReadLockThreadIndependent(0) || timed.WriteLockThreadIndependent(0));
  by(a, "U");
  EXPECT_EQ(timed.get_busy(), 0.0);
  a.run([&] {
    EXPECT_TRUE(timed.ReadLock(1) && timed.Lock(1) && timed.WriteLock(1));
    timed.ReadLock();
    timed.Lock();
    timed.WriteLock();
    EXPECT_EQ(status(), "locked_write, A:R,A:W,A:W,A:R,A:W,A:W");
    now += 10;
    EXPECT_EQ(timed.get_busy(), 0.25);
    for (int holds = 6; holds > 0; --holds) timed.Unlock();
    EXPECT_FALSE(timed.IsLocked());
  });
  EXPECT_TRUE(timed.ReadLockThreadIndependent(1));
  timed.ReadLockThreadIndependent();
  EXPECT_EQ(status(), "locked_read, 0:R,0:R");
  for (int holds = 2; holds > 0; --holds) timed.UnlockThreadIndependent();
  EXPECT_TRUE(timed.WriteLockThreadIndependent(1));
  EXPECT_EQ(status(), "locked_write, 0:W");
  timed.UnlockThreadIndependent();
  timed.WriteLockThreadIndependent();
  EXPECT_TRUE(timed.IsLocked());
  now += 20;
  EXPECT_EQ(timed.get_busy(), 0.5);
  timed.UnlockThreadIndependent();
  now += 60;
  EXPECT_EQ(timed.get_busy(), 0.25);
  EXPECT_EQ(timed.get_elapsed(), 120 / _pcounter_t::frequency);
}

TEST(CriticalSection, KeepsOtherThreadsOutUntilEveryLockIsUndone) {
  TCriticalSection section;
  Agent other;
  auto const is_free = [&] {
    return other.ask([&] {
      bool const entered = TryEnterCriticalSection(&section);
      if (entered) LeaveCriticalSection(&section);
      return entered;
    });
  };
  section.Lock();
  section.Lock();
  section.Unlock();
  EXPECT_FALSE(is_free());
  section.Unlock();
  EXPECT_EQ(values_of<ENotImplemented>([&] { TLock guard(section, 0); }),
            "Text=Not implemented;SourceFile=CriticalSection;SourceLine=18;"
            "Function=TCriticalSection::Lock");
  EXPECT_TRUE(is_free());
}
