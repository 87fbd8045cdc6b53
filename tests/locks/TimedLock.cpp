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
  struct {
    char const* name;
    bool (TTimedLock::*timed)(unsigned int);
    void (TTimedLock::*untimed)();
    void (TTimedLock::*undo)();
  } const rows[] = {
      {"Lock", &TTimedLock::Lock, &TTimedLock::Lock, &TTimedLock::Unlock},
      {"ReadLock", &TTimedLock::ReadLock, &TTimedLock::ReadLock, &TTimedLock::Unlock},
      {"WriteLock", &TTimedLock::WriteLock, &TTimedLock::WriteLock, &TTimedLock::Unlock},
      {"ReadLockThreadIndependent", &TTimedLock::ReadLockThreadIndependent,
       &TTimedLock::ReadLockThreadIndependent, &TTimedLock::UnlockThreadIndependent},
      {"WriteLockThreadIndependent", &TTimedLock::WriteLockThreadIndependent,
       &TTimedLock::WriteLockThreadIndependent, &TTimedLock::UnlockThreadIndependent},
  };
  for (auto const& [name, timed, untimed, undo] : rows) {
    SCOPED_TRACE(name);
    Target target;
    TTimedLock lock(target);
    target.available = false;
    EXPECT_FALSE((lock.*timed)(1));
    EXPECT_FALSE(lock.IsLocked());
    target.available = true;
    EXPECT_TRUE((lock.*timed)(2));
    (lock.*untimed)();
    (lock.*undo)();
    EXPECT_TRUE(lock.IsLocked());
    (lock.*undo)();
    EXPECT_FALSE(lock.IsLocked());
    std::string const asked = name, ended = undo == &TTimedLock::Unlock ? "Unlock"
                                                                        : "UnlockThreadIndependent";
    EXPECT_EQ(target.calls,
              (std::vector<std::string>{asked + " 1", asked + " 2", asked, ended, ended}));
  }
}
