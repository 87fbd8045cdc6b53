// What stands on any lock, the guards and the adaptor that measures, and the
// critical section.
#include "velt/locks/Lock.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <array>
#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>

#include "tests/locks/Agent.h"
#include "tests/support/Expect.h"
#include "tests/support/Imports.h"
#include "velt/locks/CriticalSection.h"
#include "velt/locks/TimedLock.h"
#include "velt/time/Stopwatches.h"

using velt_test::system_code;

static_assert(sizeof(TLock) == sizeof(void*) && sizeof(TReadLock) == sizeof(void*));

namespace {

// Writes down what is asked of it.
struct Probe final : IMultiLockEx {
  std::string asked;
  bool available = true, fails = false;

  void note(std::string const& what) { asked += what + " "; }
  bool note(std::string const& what, unsigned int timeout) {
    note(what + " " + std::to_string(timeout));
    return available;
  }
  void unlock(std::string const& what) {
    note(what);
    if (fails) throw std::runtime_error("unlock");
  }

#define VELT_NOTED(OPERATION)                                                             \
  bool OPERATION(unsigned int timeout) override { return note(#OPERATION, timeout); } \
  void OPERATION() override { note(#OPERATION); }
  VELT_NOTED(Lock)
  VELT_NOTED(ReadLock)
  VELT_NOTED(WriteLock)
  VELT_NOTED(ReadLockThreadIndependent)
  VELT_NOTED(WriteLockThreadIndependent)
  void Unlock() override { unlock("Unlock"); }
  void UnlockThreadIndependent() override { unlock("UnlockThreadIndependent"); }
};

struct Guard : ::testing::Test {
  Probe probe;
  Probe const& constant = probe;

  // What is asked in a scope of the guard, and inside of it.
  template <class Guarding, class... Arguments>
  std::string scope(Arguments&&... arguments) {
    probe.asked.clear();
    {
      Guarding guard(arguments...);
      probe.note("|");
    }
    return probe.asked;
  }
};

}  // namespace

TEST_F(Guard, EveryConstructorHoldsTheLockForTheScope) {
  std::string const plain = "Lock | Unlock ";
  EXPECT_EQ(scope<TLock>(probe), plain);
  EXPECT_EQ(scope<TLock>(&probe), plain);
  EXPECT_EQ(scope<TLock>(constant), plain);
  EXPECT_EQ(scope<TLock>(&constant), plain);
  EXPECT_EQ(scope<TReadLock>(probe), "ReadLock | Unlock ");
  EXPECT_EQ(scope<TReadLock>(constant), "ReadLock | Unlock ");
  EXPECT_EQ(scope<TLock>(probe, 1u), "Lock 1 | Unlock ");
  EXPECT_EQ(scope<TLock>(&probe, 2u), "Lock 2 | Unlock ");
  EXPECT_EQ(scope<TLock>(constant, 3u), "Lock 3 | Unlock ");
  EXPECT_EQ(scope<TLock>(&constant, 0xFFFFFFFF), "Lock 4294967295 | Unlock ");
  EXPECT_EQ(scope<TReadLock>(constant, 5u), "ReadLock 5 | Unlock ");
}

TEST_F(Guard, ReleasesOnceHoweverOftenItLocksOrUnlocks) {
  {
    TLock guard(probe);
    EXPECT_TRUE(guard.Lock(7));
    guard.Unlock();
    guard.Unlock();
    TReadLock reading(probe);
    reading.Unlock();
    reading.Unlock();
  }
  EXPECT_EQ(std::exchange(probe.asked, ""), "Lock Lock 7 Unlock ReadLock Unlock ");
  { TLock(probe).Lock(); }
  EXPECT_EQ(probe.asked, "Lock Lock Unlock ");
}

TEST_F(Guard, RefusalUnlocksNothing) {
  probe.available = false;
  EXPECT_EQ(system_code([&] { TLock guard(probe, 0); }), 258);
  EXPECT_EQ(system_code([&] { TReadLock guard(probe, 0); }), 258);
  {
    TLock guard(probe);
    EXPECT_FALSE(guard.Lock(0)) << "which empties the guard";
  }
  EXPECT_EQ(probe.asked, "Lock 0 ReadLock 0 Lock Lock 0 ");
}

TEST_F(Guard, AssignedGuardsReleaseOneLockTwiceAndTheOtherNever) {
  Probe left;
  {
    TLock source(probe), target(left);
    target = source;
  }
  EXPECT_EQ(probe.asked, "Lock Unlock Unlock ");
  EXPECT_EQ(left.asked, "Lock ");
}

TEST_F(Guard, FailureOfUnlockPassesOutAndLeavesTheGuardHolding) {
  probe.fails = true;
  EXPECT_THROW(
      {
        TLock guard(probe);
        EXPECT_THROW(guard.Unlock(), std::runtime_error);
      },
      std::runtime_error);
  EXPECT_EQ(probe.asked, "Lock Unlock Unlock ");
}

TEST(TimedLock, ForwardsEveryOperationAndSumsUpBusyAndIdleTime) {
  __int64 now = 1'000;
  velt_test::Replacement const clock{VELT_CALL(QueryPerformanceCounter),
                                     [&](auto, LARGE_INTEGER* place) -> BOOL {
                                       place->QuadPart = now;
                                       return TRUE;
                                     }};
  Probe target;
  TTimedLock lock(target);
  EXPECT_TRUE(std::isnan(lock.get_busy())) << "within the tick of its construction";
  now += 30;
  auto const lock_all = [&] {
    return std::array{lock.Lock(1), lock.ReadLock(2), lock.WriteLock(3),
                      lock.ReadLockThreadIndependent(4), lock.WriteLockThreadIndependent(5)};
  };
  target.available = false;
  EXPECT_EQ(lock_all(), (std::array<bool, 5>{}));
  EXPECT_EQ(lock.get_busy(), 0.0);
  target.available = true;
  EXPECT_EQ(lock_all(), (std::array{true, true, true, true, true}));
  std::string const timed =
      "Lock 1 ReadLock 2 WriteLock 3 ReadLockThreadIndependent 4 WriteLockThreadIndependent 5 ";
  EXPECT_EQ(std::exchange(target.asked, ""), timed + timed);
  now += 10;
  EXPECT_EQ(lock.get_busy(), 0.25);
  lock.Lock();
  lock.ReadLock();
  lock.WriteLock();
  lock.ReadLockThreadIndependent();
  lock.WriteLockThreadIndependent();
  now += 20;
  for (int left = 10; left > 0; --left) {
    EXPECT_TRUE(lock.IsLocked());
    left % 2 ? lock.Unlock() : lock.UnlockThreadIndependent();
  }
  EXPECT_FALSE(lock.IsLocked());
  EXPECT_TRUE(target.asked.starts_with(
      "Lock ReadLock WriteLock ReadLockThreadIndependent WriteLockThreadIndependent "
      "UnlockThreadIndependent Unlock UnlockThreadIndependent ")) << target.asked;
  EXPECT_EQ(lock.get_busy(), 0.5);
  now += 60;
  EXPECT_EQ(lock.get_busy(), 0.25);
  EXPECT_EQ(lock.get_elapsed_ticks(), 120);
  EXPECT_EQ(lock.get_elapsed(), 120 / _pcounter_t::frequency);
}

TEST(CriticalSection, KeepsOtherThreadsOutUntilEveryLockIsUndone) {
  TCriticalSection section;
  velt_test::Agent other;
  auto const is_free = [&] {
    return other.ask([&] {
      bool const entered = TryEnterCriticalSection(&section);
      if (entered) LeaveCriticalSection(&section);
      return entered;
    });
  };
  section.Lock();
  section.Lock();
  EXPECT_FALSE(is_free());
  section.Unlock();
  EXPECT_FALSE(is_free());
  section.Unlock();
  EXPECT_TRUE(is_free());

  EXPECT_EQ(velt_test::values_of<ENotImplemented>([&] { TLock guard(section, 0); }),
            "Text=Not implemented;SourceFile=CriticalSection;SourceLine=18;"
            "Function=TCriticalSection::Lock");
  EXPECT_TRUE(is_free());
}
