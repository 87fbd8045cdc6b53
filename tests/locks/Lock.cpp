#include "velt/locks/Lock.h"

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>

#include "velt/exceptions/ExceptionFamily.h"

static_assert(sizeof(TLock) == sizeof(void*));

namespace {

// Counts what a guard asks of it.
struct Probe final : ILock {
  bool Lock(unsigned int timeout) override {
    last_timeout = timeout;
    held += available;
    return available;
  }
  void Lock() override { ++held; }
  void Unlock() override {
    if (fails) throw std::runtime_error("unlock");
    --held;
    ++unlocks;
  }

  bool available = true, fails = false;
  int held = 0, unlocks = 0;
  std::optional<unsigned int> last_timeout;
};

}  // namespace

TEST(Guard, EveryConstructorHoldsTheLockForTheScope) {
  Probe probe;
  Probe const& constant = probe;
  auto const check = [&probe](auto&&... arguments) {
    {
      TLock guard(arguments...);
      EXPECT_EQ(probe.held, 1);
    }
    EXPECT_EQ(probe.held, 0);
  };
  check(probe);
  check(&probe);
  check(constant);
  check(&constant);
  EXPECT_FALSE(probe.last_timeout);
  check(probe, 1u);
  check(&probe, 2u);
  check(constant, 3u);
  check(&constant, 0xFFFFFFFFu);
  EXPECT_EQ(probe.last_timeout, 0xFFFFFFFFu);
}

TEST(Guard, SecondUnlockAndTheDestructorDoNothing) {
  Probe probe;
  {
    TLock guard(probe);
    guard.Unlock();
    guard.Unlock();
  }
  EXPECT_EQ(probe.unlocks, 1);
}

TEST(Guard, ConstructorThatRunsOutOfTimeThrowsAndUnlocksNothing) {
  Probe probe;
  probe.available = false;
  try {
    TLock guard(probe, 0);
    ADD_FAILURE() << "nothing was thrown";
  } catch (ESystemException const& e) {
    EXPECT_EQ(e["Code"].as_int(), 258);
  }
  EXPECT_EQ(probe.unlocks, 0);
}

TEST(Guard, FurtherLocksAreNotReleasedAndOneThatFailsEmptiesTheGuard) {
  Probe probe;
  {
    TLock guard(probe);
    EXPECT_TRUE(guard.Lock(7));
  }
  EXPECT_EQ(probe.held, 1);
  {
    TLock guard(probe);
    probe.available = false;
    EXPECT_FALSE(guard.Lock(0));
  }
  EXPECT_EQ(probe.held, 2);
}

TEST(Guard, AssignedGuardsReleaseOneLockTwiceAndTheOtherNever) {
  Probe shared, left;
  {
    TLock source(shared), target(left);
    target = source;
  }
  EXPECT_EQ(shared.unlocks, 2);
  EXPECT_EQ(left.held, 1);
  EXPECT_EQ(left.unlocks, 0);
}

TEST(Guard, FailureOfUnlockPassesOutAndLeavesTheGuardHolding) {
  Probe probe;
  probe.fails = true;
  EXPECT_THROW(
      {
        TLock guard(probe);
        EXPECT_THROW(guard.Unlock(), std::runtime_error);
      },
      std::runtime_error);
  EXPECT_EQ(probe.held, 1);
}
