#include "velt/locks/MultiLockWithNotify.h"

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>

#include "tests/locks/LockTest.h"

using namespace velt_test;

namespace {

// Writes down what it is told, and lets a test act inside a notification.
struct RecordingLock : Opened<TMultiLockWithNotify> {
  std::string told;
  std::function<void(std::string const&)> during = [](std::string const&) {};

  void OnWriteLock() override { tell("OnWriteLock "); }
  void OnReadLock() override { tell("OnReadLock "); }
  void OnWriteUnlock() override { tell("OnWriteUnlock "); }
  void OnReadUnlock() override { tell("OnReadUnlock "); }
  void OnWriteAfterReadLock() override { tell("OnWriteAfterReadLock "); }
  void OnWriteAfterReadUnlock() override { tell("OnWriteAfterReadUnlock "); }

private:
  void tell(std::string const& name) {
    told += name;
    during(name);
  }
};

struct MultiLockWithNotify : LockTest<RecordingLock> {
  TEvent go_on{true, false};

  ~MultiLockWithNotify() noexcept override {}

  std::string told_of(char const* letters) {
    lock.told.clear();
    by(a, letters);
    return lock.told;
  }
};

}  // namespace

TEST_F(MultiLockWithNotify, OnlyTheEdgesBetweenFreeAndHeldAndTheUpgradeAreTold) {
  std::string const upgrade =
      "OnReadLock OnWriteAfterReadLock OnWriteAfterReadUnlock OnReadUnlock ";
  EXPECT_EQ(told_of("RRUU"), "OnReadLock OnReadUnlock ");
  EXPECT_EQ(told_of("RWUU"), upgrade);
  EXPECT_EQ(told_of("WRUU"), "OnWriteLock OnWriteUnlock ");
  EXPECT_EQ(told_of("WWUU"), "OnWriteLock OnWriteUnlock ");
  // Two write holds over a read: the first to go is not the only one.
  EXPECT_EQ(told_of("RWWUUU"), upgrade);
  EXPECT_EQ(status(), "not_locked");

  // Each form fires its own, whichever took the hold.
  lock.told.clear();
  lock.WriteLockNoNotify();
  lock.Unlock();
  lock.ReadLock();
  lock.UnlockNoNotify();
  lock.ReadLockThreadIndependentNoNotify();
  lock.UnlockThreadIndependent();
  EXPECT_EQ(lock.told, "OnWriteUnlock OnReadLock OnReadUnlock ");
}

// Each notification against the lock during the call: its status, and what
// another thread gets.
TEST_F(MultiLockWithNotify, LockDuringEachCallIsAsDocumented) {
  std::string seen;
  lock.during = [&](std::string const& name) {
    seen += name + status();
    b.run([&] {
      if (lock.WriteLockNoNotify(0)) seen += ", others may write";
      if (lock.ReadLockNoNotify(0)) seen += ", others may read", lock.UnlockNoNotify();
    });
    seen += "\n";
  };
  told_of("RWUUWU");
  EXPECT_EQ(seen,
            "OnReadLock locked_write, A:R\n"
            "OnWriteAfterReadLock locked_write, A:R,A:W\n"
            "OnWriteAfterReadUnlock locked_write, A:R,A:W\n"
            "OnReadUnlock locked_read, A:R, others may read\n"
            "OnWriteLock locked_write, A:W\n"
            "OnWriteUnlock locked_write, A:W\n");
}

TEST_F(MultiLockWithNotify, ReadersThatWaitForTheFirstOneEnterTogetherWhenItIsDone) {
  lock.during = [&](std::string const&) { go_on.WaitForSignal(); };
  for (Agent* const each : {&a, &b, &c}) start(*each, "R");
  go_on.Set();
  for (Agent* const each : {&a, &b, &c}) each->finish();
  EXPECT_EQ(lock.told, "OnReadLock ");
}

// An exception takes a new hold back, and comes after the release of an old one. That of
// an upgrade is swallowed.
TEST_F(MultiLockWithNotify, WhatANotificationThrowsLeavesTheLockAsDocumented) {
  struct {
    std::string name;
    char const* letters;
    std::string status_left = "not_locked";
  } const rows[] = {{"OnReadLock ", "R"},
                    {"OnWriteLock ", "W"},
                    {"OnReadUnlock ", "RU"},
                    {"OnWriteUnlock ", "WU"},
                    {"OnWriteAfterReadUnlock ", "RWU", "locked_read, A:R"},
                    {"OnWriteAfterReadLock ", "W", "locked_read, A:R"}};
  for (auto const& [name, letters, status_left] : rows) {
    lock.during = [&](std::string const& told) {
      if (told == name) throw std::runtime_error(name);
    };
    if (name == "OnWriteAfterReadLock ")
      EXPECT_EQ(told_of(letters), name);
    else
      EXPECT_THROW(told_of(letters), std::runtime_error);
    EXPECT_TRUE(lock.told.ends_with(name)) << lock.told;
    EXPECT_EQ(status(), status_left);
  }
  EXPECT_TRUE(b.ask([&] { return lock.ReadLock(0); }));
}

// Whoever waits meanwhile gets the lock.
TEST_F(MultiLockWithNotify, WaiterGetsTheHoldThatANotificationTookBack) {
  lock.during = [&](std::string const&) {
    go_on.WaitForSignal();
    throw std::runtime_error("no");
  };
  start(a, "R");
  b.start([&] { lock.WriteLockNoNotify(); });
  EXPECT_TRUE(b.waits());
  go_on.Set();
  EXPECT_THROW(a.finish(), std::runtime_error);
  b.finish();
  EXPECT_EQ(status(), "locked_write, B:W");
}

TEST_F(MultiLockWithNotify, FirstReaderThatIsInterruptedAfterItsNotificationHoldsNothing) {
  std::atomic<bool> held = false, interrupted = false;
  lock.during = [&](std::string const&) {
    b.run([&] { lock.hold_inner(); });
    held = true;
  };
  start(a, "R");
  while (!held) Sleep(1);
  a.queue([&] {
    interrupted = true;
    throw Interrupted();
  });
  while (!interrupted) Sleep(1);
  EXPECT_TRUE(a.waits());
  lock.let_inner_go();
  EXPECT_THROW(a.finish(), Interrupted);
  EXPECT_EQ(status(), "not_locked");
}
