#include "velt/locks/MultiLockWithNotify.h"

#include <atomic>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

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
  void throw_in(std::string const& name) {
    lock.during = [name](std::string const& told) {
      if (told == name) throw std::runtime_error(name);
    };
  }
  void expect_throw(std::string const& name, char const* letters, std::string const& status_left) {
    throw_in(name);
    EXPECT_THROW(told_of(letters), std::runtime_error);
    EXPECT_TRUE(lock.told.ends_with(name)) << lock.told;
    EXPECT_EQ(status(), status_left);
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

TEST_F(MultiLockWithNotify, WhatALockNotificationThrowsTakesTheHoldBack) {
  expect_throw("OnReadLock ", "R", "not_locked");
  EXPECT_THROW(lock.ReadLockThreadIndependent(), std::runtime_error);
  expect_throw("OnWriteLock ", "W", "not_locked");
  EXPECT_THROW(lock.WriteLockThreadIndependent(), std::runtime_error);
  // Whoever waits meanwhile gets the lock.
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

TEST_F(MultiLockWithNotify, WhatAnUnlockNotificationThrowsComesAfterTheRelease) {
  expect_throw("OnReadUnlock ", "RU", "not_locked");
  expect_throw("OnWriteUnlock ", "WU", "not_locked");
  expect_throw("OnWriteAfterReadUnlock ", "RWU", "locked_read, A:R");
}

TEST_F(MultiLockWithNotify, FailureOfTheUpgradeNotificationIsSwallowedAndLeavesTheReadHold) {
  throw_in("OnWriteAfterReadLock ");
  by(a, "RW");
  EXPECT_EQ(status(), "locked_read, A:R");
  EXPECT_TRUE(b.ask([&] { return lock.ReadLock(0); }));
}

TEST_F(MultiLockWithNotify, FirstReaderThatIsInterruptedAfterItsNotificationHoldsNothing) {
  std::atomic<bool> held = false;
  lock.during = [&](std::string const& name) {
    if (name != "OnReadLock ") return;
    b.run([&] { lock.hold_inner(); });
    held = true;
  };
  start(a, "R");
  while (!held) Sleep(1);
  EXPECT_TRUE(a.waits());
  a.interrupt();
  while (!a.interrupted) Sleep(1);
  EXPECT_TRUE(a.waits());
  lock.let_inner_go();
  EXPECT_THROW(a.finish(), Interrupted);
  EXPECT_EQ(status(), "not_locked");
}

// In every hold the lock is as its notifications have told.
TEST(MultiLockWithNotifyThreads, WriteNotificationsAreExact) {
  struct Lock final : TMultiLockWithNotify {
    void OnWriteLock() override { late(true); }
    void OnWriteUnlock() override { late(false); }
    void OnWriteAfterReadLock() override { late(true); }
    void OnWriteAfterReadUnlock() override { late(false); }
    // Whoever could get in meanwhile gets in.
    void late(bool now) {
      Sleep(0);
      written = now;
    }
    bool written = false;
  } lock;
  std::atomic<int> wrong = 0;
  auto const use = [&](unsigned int random) {
    auto const look = [&](bool expected) {
      wrong += lock.written != expected;
      Sleep(0);
      wrong += lock.written != expected;
    };
    for (int i = 0; i < 1'500; ++i) try {
        random = random * 1'103'515'245 + 12'345;
        std::optional<TReadLock> reading;
        if (random & 0x10000) reading.emplace(lock), look(false);
        if (random & 0x20000) continue;
        TLock const writing(lock);
        look(true);
      } catch (EDeadLockException const&) {
      }
  };
  {
    std::jthread const threads[] = {std::jthread(use, 1), std::jthread(use, 2),
                                    std::jthread(use, 3)};
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_FALSE(lock.written);
}
