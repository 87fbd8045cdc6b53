// Built with the adaptor's source in the program itself, so that the counter it
// reads is the test's.
#include "velt/locks/TimedLock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "velt/locks/MultiLock.h"
#include "velt/time/Stopwatches.h"

namespace {

std::int64_t now = 0;

// Writes down the operations that reach it.
struct Target final : IMultiLockEx {
  std::vector<std::string> calls;
  bool available = true;

  bool note(std::string const& name, unsigned int timeout) {
    calls.push_back(name + " " + std::to_string(timeout));
    return available;
  }
  void note(std::string const& name) { calls.push_back(name); }

  bool Lock(unsigned int timeout) override { return note("Lock", timeout); }
  void Lock() override { note("Lock"); }
  void Unlock() override { note("Unlock"); }
  bool ReadLock(unsigned int timeout) override { return note("ReadLock", timeout); }
  void ReadLock() override { note("ReadLock"); }
  bool WriteLock(unsigned int timeout) override { return note("WriteLock", timeout); }
  void WriteLock() override { note("WriteLock"); }
  bool ReadLockThreadIndependent(unsigned int timeout) override {
    return note("ReadLockThreadIndependent", timeout);
  }
  void ReadLockThreadIndependent() override { note("ReadLockThreadIndependent"); }
  bool WriteLockThreadIndependent(unsigned int timeout) override {
    return note("WriteLockThreadIndependent", timeout);
  }
  void WriteLockThreadIndependent() override { note("WriteLockThreadIndependent"); }
  void UnlockThreadIndependent() override { note("UnlockThreadIndependent"); }
};

}  // namespace

// performance_count, as the compiler names it.
extern "C" long long __wrap__ZN4velt6detail17performance_countEv() noexcept { return now; }

TEST(TimedLock, SumsUpBusyAndIdleTime) {
  now = 1'000;
  TMultiLock target;
  TTimedLock lock(target);
  now += 30;
  EXPECT_EQ(lock.get_busy(), 0.0);
  lock.Lock();
  now += 10;
  EXPECT_TRUE(lock.IsLocked());
  EXPECT_EQ(lock.get_busy(), 0.25);
  // Recursion, a read hold and a hold of no thread do not begin a period anew.
  EXPECT_TRUE(lock.WriteLock(0));
  lock.ReadLock();
  now += 10;
  lock.Unlock();
  lock.Unlock();
  EXPECT_TRUE(lock.IsLocked());
  now += 10;
  lock.Unlock();
  EXPECT_FALSE(lock.IsLocked());
  EXPECT_EQ(lock.get_busy(), 0.5);
  now += 60;
  EXPECT_EQ(lock.get_busy(), 0.25);
  lock.ReadLockThreadIndependent();
  now += 40;
  EXPECT_EQ(lock.get_busy(), 70.0 / 160);
  lock.UnlockThreadIndependent();
  EXPECT_EQ(lock.get_elapsed_ticks(), 160);
  EXPECT_EQ(lock.get_elapsed(), 160 / _pcounter_t::frequency);
}

TEST(TimedLock, WithinTheTickOfItsConstructionBusyIsNotANumber) {
  Target target;
  TTimedLock const lock(target);
  EXPECT_TRUE(std::isnan(lock.get_busy()));
  EXPECT_FALSE(lock.IsLocked());
  ++now;
  EXPECT_EQ(lock.get_busy(), 0.0);
}

TEST(TimedLock, EveryOperationGoesToItsOwnAndCountsUnlessItFails) {
  Target target;
  TTimedLock lock(target);
  target.available = false;
  EXPECT_FALSE(lock.Lock(0));
  EXPECT_FALSE(lock.ReadLock(1));
  EXPECT_FALSE(lock.WriteLock(2));
  EXPECT_FALSE(lock.ReadLockThreadIndependent(3));
  EXPECT_FALSE(lock.WriteLockThreadIndependent(4));
  EXPECT_FALSE(lock.IsLocked());
  target.available = true;
  target.calls.clear();
  lock.Lock();
  EXPECT_TRUE(lock.Lock(1));
  lock.ReadLock();
  EXPECT_TRUE(lock.ReadLock(2));
  lock.WriteLock();
  EXPECT_TRUE(lock.WriteLock(3));
  lock.ReadLockThreadIndependent();
  EXPECT_TRUE(lock.ReadLockThreadIndependent(4));
  lock.WriteLockThreadIndependent();
  EXPECT_TRUE(lock.WriteLockThreadIndependent(0xFFFFFFFF));
  for (int i = 0; i < 9; ++i) lock.Unlock();
  EXPECT_TRUE(lock.IsLocked());
  lock.UnlockThreadIndependent();
  EXPECT_FALSE(lock.IsLocked());

  std::vector<std::string> expected{"Lock", "Lock 1", "ReadLock", "ReadLock 2", "WriteLock",
                                    "WriteLock 3", "ReadLockThreadIndependent",
                                    "ReadLockThreadIndependent 4", "WriteLockThreadIndependent",
                                    "WriteLockThreadIndependent 4294967295"};
  expected.insert(expected.end(), 9, "Unlock");
  expected.push_back("UnlockThreadIndependent");
  EXPECT_EQ(target.calls, expected);
}

TEST(TimedLock, CopyTakesTheTotalsAndTheOpenHoldsAlong) {
  Target target, other;
  TTimedLock lock(target);
  now += 10;
  lock.Lock();
  now += 10;
  TTimedLock copy(lock), assigned(other);
  assigned = copy;
  lock.Unlock();
  now += 20;
  EXPECT_FALSE(lock.IsLocked());
  EXPECT_TRUE(assigned.IsLocked());
  EXPECT_EQ(assigned.get_busy(), 0.75);
  EXPECT_EQ(lock.get_busy(), 0.25);
  assigned.Unlock();
  EXPECT_EQ(target.calls, (std::vector<std::string>{"Lock", "Unlock", "Unlock"}));
  EXPECT_TRUE(other.calls.empty());
}
