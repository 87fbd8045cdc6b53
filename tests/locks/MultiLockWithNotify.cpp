#include "velt/locks/MultiLockWithNotify.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/locks/Agent.h"
#include "velt/exceptions/ExceptionFamily.h"

using velt_test::Agent;
using velt_test::Interrupted;

namespace {

using strings = std::vector<std::string>;

// Writes down what it is told, and lets a test act inside a notification.
struct RecordingLock : TMultiLockWithNotify {
  strings told;
  std::function<void(std::string const&)> during = [](std::string const&) {};

  void hold_inner() { inner_lock(own_id()); }
  void let_inner_go() { inner_unlock(); }

  strings take_told() { return std::exchange(told, {}); }

  void OnWriteLock() override { tell("OnWriteLock"); }
  void OnReadLock() override { tell("OnReadLock"); }
  void OnWriteUnlock() override { tell("OnWriteUnlock"); }
  void OnReadUnlock() override { tell("OnReadUnlock"); }
  void OnWriteAfterReadLock() override { tell("OnWriteAfterReadLock"); }
  void OnWriteAfterReadUnlock() override { tell("OnWriteAfterReadUnlock"); }

private:
  void tell(std::string const& name) {
    told.push_back(name);
    during(name);
  }
};

class MultiLockWithNotify : public ::testing::Test {
protected:
  RecordingLock lock;
  Agent a{"A"}, b{"B"};

  std::string record(Agent const& agent, char kind) { return agent.id_text() + ":" + kind; }
  std::string status() { return lock.GetStatusString(); }
  // Steps of thread A, one after the other: Read, Write, Unlock.
  void by_a(std::string const& steps) {
    a.run([&] {
      for (char const step : steps) {
        if (step == 'R') lock.ReadLock();
        if (step == 'W') lock.WriteLock();
        if (step == 'U') lock.Unlock();
      }
    });
  }
  void throw_in(std::string const& name) {
    lock.during = [name](std::string const& told) {
      if (told == name) throw std::runtime_error(name);
    };
  }
};

}  // namespace

TEST_F(MultiLockWithNotify, OnlyTheEdgesBetweenFreeAndHeldAndTheUpgradeAreTold) {
  by_a("RRUU");
  EXPECT_EQ(lock.take_told(), (strings{"OnReadLock", "OnReadUnlock"}));
  by_a("RWUU");
  EXPECT_EQ(lock.take_told(), (strings{"OnReadLock", "OnWriteAfterReadLock",
                                       "OnWriteAfterReadUnlock", "OnReadUnlock"}));
  by_a("WRUU");
  EXPECT_EQ(lock.take_told(), (strings{"OnWriteLock", "OnWriteUnlock"}));
  by_a("WWUU");
  EXPECT_EQ(lock.take_told(), (strings{"OnWriteLock", "OnWriteUnlock"}));
  // Two write holds over a read: the first to go is no longer the only one.
  by_a("RWWUUU");
  EXPECT_EQ(lock.take_told(), (strings{"OnReadLock", "OnWriteAfterReadLock",
                                       "OnWriteAfterReadUnlock", "OnReadUnlock"}));
  EXPECT_EQ(status(), "not_locked");
}

// Each notification against the lock during the call: its status, and what
// another thread gets.
TEST_F(MultiLockWithNotify, LockDuringEachCallIsAsDocumented) {
  struct Seen {
    std::string name, status;
    bool other_may_read, other_may_write;
    bool operator==(Seen const&) const = default;
  };
  std::vector<Seen> seen;
  lock.during = [&](std::string const& name) {
    Seen now{name, status(), false, false};
    b.run([&] {
      if ((now.other_may_write = lock.WriteLockNoNotify(0))) lock.UnlockNoNotify();
      if ((now.other_may_read = lock.ReadLockNoNotify(0))) lock.UnlockNoNotify();
    });
    seen.push_back(now);
  };
  by_a("RWUUWU");
  std::string const r = record(a, 'R'), w = record(a, 'W');
  std::vector<Seen> const expected{
      {"OnReadLock", "locked_write, " + r, false, false},
      {"OnWriteAfterReadLock", "locked_write, " + r + "," + w, false, false},
      {"OnWriteAfterReadUnlock", "locked_write, " + r + "," + w, false, false},
      {"OnReadUnlock", "locked_read, " + r, true, false},
      {"OnWriteLock", "locked_write, " + w, false, false},
      {"OnWriteUnlock", "locked_write, " + w, false, false}};
  ASSERT_EQ(seen.size(), expected.size());
  for (std::size_t i = 0; i < seen.size(); ++i)
    EXPECT_EQ(seen[i], expected[i]) << expected[i].name << " saw " << seen[i].status;
}

TEST_F(MultiLockWithNotify, ReadersThatWaitForTheFirstOneEnterTogetherWhenItIsDone) {
  Agent c("C");
  HANDLE const go_on = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  lock.during = [&](std::string const&) { WaitForSingleObject(go_on, INFINITE); };
  a.start([&] { lock.ReadLock(); });
  EXPECT_TRUE(a.waits());
  for (Agent* const each : {&b, &c}) {
    each->start([&] { lock.ReadLock(); });
    EXPECT_TRUE(each->waits());
  }
  SetEvent(go_on);
  for (Agent* const each : {&a, &b, &c}) each->finish();
  EXPECT_EQ(lock.take_told(), strings{"OnReadLock"});
  for (Agent* const each : {&a, &b, &c}) each->run([&] { lock.Unlock(); });
  CloseHandle(go_on);
}

TEST_F(MultiLockWithNotify, WhatALockNotificationThrowsTakesTheHoldBack) {
  for (auto const& [name, step] : {std::pair{"OnReadLock", "R"}, {"OnWriteLock", "W"}}) {
    throw_in(name);
    EXPECT_THROW(by_a(step), std::runtime_error) << name;
    EXPECT_EQ(lock.take_told(), strings{name});
    EXPECT_EQ(status(), "not_locked");
  }
  throw_in("OnReadLock");
  EXPECT_THROW(lock.ReadLockThreadIndependent(), std::runtime_error);
  throw_in("OnWriteLock");
  EXPECT_THROW(lock.WriteLockThreadIndependent(), std::runtime_error);
  EXPECT_EQ(status(), "not_locked");
  EXPECT_TRUE(b.ask([&] { return lock.WriteLockNoNotify(0); }));
}

TEST_F(MultiLockWithNotify, FailureOfTheUpgradeNotificationIsSwallowedAndLeavesTheReadHold) {
  throw_in("OnWriteAfterReadLock");
  by_a("RW");
  EXPECT_EQ(status(), "locked_read, " + record(a, 'R'));
  EXPECT_TRUE(b.ask([&] { return lock.ReadLock(0); }));
}

TEST_F(MultiLockWithNotify, WhatAnUnlockNotificationThrowsComesAfterTheRelease) {
  throw_in("OnReadUnlock");
  EXPECT_THROW(by_a("RU"), std::runtime_error);
  EXPECT_EQ(status(), "not_locked");
  throw_in("OnWriteUnlock");
  EXPECT_THROW(by_a("WU"), std::runtime_error);
  EXPECT_EQ(status(), "not_locked");
  throw_in("OnWriteAfterReadUnlock");
  EXPECT_THROW(by_a("RWU"), std::runtime_error);
  EXPECT_EQ(status(), "locked_read, " + record(a, 'R'));
}

TEST_F(MultiLockWithNotify, EachFormFiresItsOwnWhateverTookTheHold) {
  lock.WriteLockNoNotify();
  lock.Unlock();
  lock.ReadLock();
  lock.UnlockNoNotify();
  lock.ReadLockThreadIndependentNoNotify();
  lock.UnlockThreadIndependent();
  EXPECT_EQ(lock.take_told(), (strings{"OnWriteUnlock", "OnReadLock", "OnReadUnlock"}));
}

TEST_F(MultiLockWithNotify, FirstReaderThatIsInterruptedAfterItsNotificationHoldsNothing) {
  std::atomic<bool> held = false;
  lock.during = [&](std::string const& name) {
    if (name != "OnReadLock") return;
    b.run([&] { lock.hold_inner(); });
    held = true;
  };
  a.start([&] { lock.ReadLock(); });
  while (!held) Sleep(1);
  EXPECT_TRUE(a.waits());
  a.interrupt();
  ASSERT_TRUE(a.is_interrupted_soon());
  EXPECT_TRUE(a.waits());
  lock.let_inner_go();
  EXPECT_THROW(a.finish(), Interrupted);
  EXPECT_EQ(status(), "not_locked");
}

TEST_F(MultiLockWithNotify, WaiterGetsTheLockWhenTheFirstNotificationThrows) {
  HANDLE const go_on = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  lock.during = [&](std::string const&) {
    WaitForSingleObject(go_on, INFINITE);
    throw std::runtime_error("no");
  };
  a.start([&] { lock.ReadLock(); });
  EXPECT_TRUE(a.waits());
  b.start([&] { lock.WriteLockNoNotify(); });
  EXPECT_TRUE(b.waits());
  SetEvent(go_on);
  EXPECT_THROW(a.finish(), std::runtime_error);
  b.finish();
  EXPECT_EQ(status(), "locked_write, " + record(b, 'W'));
  CloseHandle(go_on);
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
