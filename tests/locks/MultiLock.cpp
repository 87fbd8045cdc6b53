#include "velt/locks/MultiLock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>

#include "tests/locks/Agent.h"
#include "tests/locks/OpenLock.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/time/Stopwatches.h"

using velt_test::Agent;
using velt_test::Interrupted;
using velt_test::OpenLock;

namespace {

std::string record(Agent const& agent, char kind) { return agent.id_text() + ":" + kind; }

class MultiLock : public ::testing::Test {
protected:
  OpenLock lock;
  Agent a{"A"}, b{"B"}, c{"C"};

  std::string status() { return lock.GetStatusString(); }
  void read(Agent& agent) {
    agent.run([this] { lock.ReadLock(); });
  }
  void write(Agent& agent) {
    agent.run([this] { lock.WriteLock(); });
  }
  void unlock(Agent& agent) {
    agent.run([this] { lock.Unlock(); });
  }
  void start_read(Agent& agent) {
    agent.start([this] { lock.ReadLock(); });
    EXPECT_TRUE(agent.waits());
  }
  void start_write(Agent& agent) {
    agent.start([this] { lock.WriteLock(); });
    EXPECT_TRUE(agent.waits());
  }
};

}  // namespace

TEST_F(MultiLock, UnlockRemovesTheNewestHoldOfTheCallerFromTheMiddle) {
  for (Agent* const each : {&a, &b, &a, &b, &c}) read(*each);
  unlock(a);
  EXPECT_EQ(status(), "locked_read, " + record(a, 'R') + "," + record(b, 'R') + "," +
                          record(b, 'R') + "," + record(c, 'R'));
  for (Agent* const each : {&a, &b, &b, &c}) unlock(*each);
  EXPECT_EQ(status(), "not_locked");
}

TEST_F(MultiLock, SecondUpgraderThrowsAtOnceAndFirstGetsTheLock) {
  read(a);
  read(b);
  start_write(a);
  try {
    b.run([&] { lock.WriteLock(); });
    ADD_FAILURE() << "did not throw";
  } catch (EDeadLockException const& e) {
    EXPECT_EQ(e["Status"].as_string(),
              "locked_read, " + record(a, 'R') + "," + record(b, 'R') + ", 1 r->w waiters");
  }
  EXPECT_TRUE(a.waits());
  unlock(b);
  a.finish();
  EXPECT_EQ(status(), "locked_write, " + record(a, 'R') + "," + record(a, 'W'));
  unlock(a);
  unlock(a);
}

TEST_F(MultiLock, HoldOfNoThreadEndsOnAnotherThreadAndOnlyByItsOwnUnlock) {
  a.run([&] { lock.WriteLockThreadIndependent(); });
  unlock(a);
  EXPECT_EQ(status(), "locked_write, 0:W");
  b.run([&] { lock.UnlockThreadIndependent(); });
  read(a);
  b.run([&] { lock.UnlockThreadIndependent(); });
  EXPECT_EQ(status(), "locked_read, " + record(a, 'R'));
  unlock(a);
}

TEST_F(MultiLock, ReadersAfterAWriterAreServedOneAtATimeAndNewcomersPassThem) {
  Agent newcomer("the newcomer");
  write(a);
  start_read(b);
  start_read(c);
  unlock(a);
  while (b.waits() && c.waits()) {
  }
  bool const b_was_first = b.finished_within(0);
  Agent& first = b_was_first ? b : c;
  Agent& second = b_was_first ? c : b;
  EXPECT_TRUE(second.waits());
  EXPECT_TRUE(newcomer.ask([&] { return lock.ReadLock(0); }));
  unlock(first);
  EXPECT_TRUE(second.waits());
  unlock(newcomer);
  second.finish();
  EXPECT_EQ(status(), "locked_read, " + record(second, 'R'));
  unlock(second);
}

// The shortest of many waits: what the machine adds is not the lock's doing, and
// nothing may make a wait shorter.
TEST_F(MultiLock, WaitLastsAsLongAsItsLimit) {
  constexpr unsigned int limit = 20;
  auto const shortest = [](auto wait) {
    double result = 1e9;
    for (int i = 0; i < 12; ++i) {
      _pcounter_t const watch;
      EXPECT_FALSE(wait());
      result = std::min(result, 1'000 * watch.get_elapsed());
    }
    return result;
  };
  auto const expect_limit = [&](auto wait) {
    double const milliseconds = shortest(wait);
    EXPECT_GE(milliseconds, limit - 1);  // the timer's clock is not the watch's
    EXPECT_LT(milliseconds, 4 * limit);
  };
  write(a);
  expect_limit([this] { return lock.ReadLock(limit); });
  expect_limit([this] { return lock.WriteLock(limit); });
  unlock(a);
  read(a);
  TReadLock const reading(lock);
  expect_limit([this] { return lock.WriteLock(limit); });
  unlock(a);
}

// A reader that finds the signal for readers still up returns from every wait at
// once, so its limit, which each wait starts anew, never runs out.
TEST_F(MultiLock, LimitBoundsOneWaitAndNotTheOperation) {
  read(a);
  write(a);
  unlock(a);
  unlock(a);
  a.run([&] { lock.WriteLockThreadIndependent(); });
  b.start([&] { EXPECT_TRUE(lock.ReadLock(20)); });
  EXPECT_TRUE(b.waits(200));
  a.run([&] { lock.UnlockThreadIndependent(); });
  b.finish();
  unlock(b);

  // A write lock of a thread lowers the signal, and the limit holds again.
  write(a);
  EXPECT_FALSE(b.ask([&] { return lock.ReadLock(20); }));
  unlock(a);
}

// Two threads let each other through, each at a gate of its own: nobody else waits
// there who could take up a wake-up that was lost.
TEST_F(MultiLock, NoWakeUpOfManyIsLost) {
  constexpr int rounds = 400;
  TMultiLock gate_of_a, gate_of_b;
  gate_of_a.WriteLockThreadIndependent();
  gate_of_b.WriteLockThreadIndependent();
  int a_passed = 0, b_passed = 0;
  b.start([&] {
    while (b_passed < rounds && gate_of_b.WriteLockThreadIndependent(5'000)) {
      ++b_passed;
      gate_of_a.UnlockThreadIndependent();
    }
  });
  a.run([&] {
    do gate_of_b.UnlockThreadIndependent();
    while (gate_of_a.WriteLockThreadIndependent(5'000) && ++a_passed < rounds);
  });
  b.finish();
  EXPECT_EQ(a_passed, rounds);
  EXPECT_EQ(b_passed, rounds);
}

TEST_F(MultiLock, QueuedCallsRunInTheWaitWhichThenGoesOn) {
  static std::atomic<int> calls;
  calls = 0;
  write(a);
  start_write(b);
  for (int i = 0; i < 3; ++i) b.queue([](ULONG_PTR) { ++calls; });
  for (int i = 0; i < 1'000 && calls < 3; ++i) Sleep(1);
  EXPECT_EQ(calls, 3);
  EXPECT_TRUE(b.waits());
  unlock(a);
  b.finish();
  unlock(b);
}

TEST_F(MultiLock, QueuedCallThatThrowsEndsTheWaitAndLeavesTheLockUsable) {
  read(a);
  read(b);
  std::string const before = status();
  auto const interrupted = [&](Agent& agent, std::function<void()> step) {
    agent.start(step);
    EXPECT_TRUE(agent.waits());
    agent.interrupt();
    EXPECT_THROW(agent.finish(), Interrupted);
    EXPECT_EQ(status(), before);
  };
  interrupted(c, [&] { (void)lock.WriteLock(20'000); });
  interrupted(c, [&] { lock.WriteLockThreadIndependent(); });
  interrupted(a, [&] { lock.WriteLock(); });
  interrupted(b, [&] { (void)lock.WriteLock(20'000); });
  unlock(b);
  write(a);
  unlock(a);
  unlock(a);
  EXPECT_EQ(status(), "not_locked");
}

// It looks like the wait's own failure, which would stay counted.
TEST_F(MultiLock, SystemExceptionOfAQueuedCallEndsAnUpgradeUncounted) {
  read(a);
  read(b);
  start_write(a);
  a.queue([](ULONG_PTR) { throw ESystemException(5); });
  EXPECT_THROW(a.finish(), ESystemException);
  EXPECT_EQ(status(), "locked_read, " + record(a, 'R') + "," + record(b, 'R'));
  unlock(a);
  unlock(b);
}

TEST_F(MultiLock, QueuedCallThatThrowsEndsTheSpinOfAnAcquisition) {
  read(a);
  lock.hold_inner();
  b.start([&] { lock.ReadLock(); });
  EXPECT_TRUE(b.waits());
  b.interrupt();
  EXPECT_THROW(b.finish(), Interrupted);
  lock.let_inner_go();
  EXPECT_EQ(status(), "locked_read, " + record(a, 'R'));
  unlock(a);
}

// The release of a guard amid the unwinding of an exception could not throw.
TEST_F(MultiLock, QueuedCallWaitsUntilAReleaseIsDone) {
  write(a);
  lock.hold_inner();
  a.start([&] {
    lock.Unlock();
    SleepEx(INFINITE, TRUE);
  });
  EXPECT_TRUE(a.waits());
  a.interrupt();
  EXPECT_TRUE(a.waits());
  lock.let_inner_go();
  EXPECT_THROW(a.finish(), Interrupted);
  EXPECT_EQ(status(), "not_locked");
}

// One wake-up is all that the end of the last hold gives: whoever got it and
// then ends by an exception must hand it on.
TEST_F(MultiLock, WokenWaiterThatIsInterruptedPassesTheWakeUpOn) {
  write(a);
  start_write(b);
  start_write(c);
  a.run([&] { lock.unlock_and_keep_inner(); });
  EXPECT_TRUE(b.waits());
  EXPECT_TRUE(c.waits());
  b.interrupt();
  EXPECT_THROW(b.finish(), Interrupted);
  lock.let_inner_go();
  c.finish();
  EXPECT_EQ(status(), "locked_write, " + record(c, 'W'));
  unlock(c);
}
