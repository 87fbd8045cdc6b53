#include "velt/locks/Lock.h"

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <type_traits>

#include "tests/support/Expect.h"
#include "velt/exceptions/ExceptionFamily.h"

static_assert(sizeof(TLock) == sizeof(void*) && sizeof(TReadLock) == sizeof(void*));

namespace {

// Counts what a guard asks of it.
struct Probe final : IMultiLock {
  bool Lock(unsigned int timeout) override {
    last_timeout = timeout;
    held += available;
    return available;
  }
  void Lock() override { ++held; }
  bool ReadLock(unsigned int timeout) override {
    reading += available;
    return Lock(timeout);
  }
  void ReadLock() override { ++held, ++reading; }
  bool WriteLock(unsigned int) override { throw std::logic_error("no guard asks so"); }
  void WriteLock() override { throw std::logic_error("no guard asks so"); }
  void Unlock() override {
    if (fails) throw std::runtime_error("unlock");
    --held;
    reading = 0;
    ++unlocks;
  }

  bool available = true, fails = false;
  int held = 0, reading = 0, unlocks = 0;
  std::optional<unsigned int> last_timeout;
};

}  // namespace

TEST(Guard, EveryConstructorHoldsTheLockForTheScope) {
  Probe probe;
  Probe const& constant = probe;
  auto const check = [&probe]<class Guard>(int reading, Guard const&, auto&&... arguments) {
    {
      typename Guard::type guard(arguments...);
      EXPECT_EQ(probe.held, 1);
      EXPECT_EQ(probe.reading, reading);
    }
    EXPECT_EQ(probe.held, 0);
  };
  std::type_identity<TLock> const plain;
  std::type_identity<TReadLock> const read;
  check(0, plain, probe);
  check(0, plain, &probe);
  check(0, plain, constant);
  check(0, plain, &constant);
  check(1, read, probe);
  check(1, read, constant);
  EXPECT_FALSE(probe.last_timeout);
  check(0, plain, probe, 1u);
  check(0, plain, &probe, 2u);
  check(0, plain, constant, 3u);
  check(0, plain, &constant, 0xFFFFFFFFu);
  EXPECT_EQ(probe.last_timeout, 0xFFFFFFFFu);
  check(1, read, constant, 5u);
  EXPECT_EQ(probe.last_timeout, 5u);
}

TEST(Guard, SecondUnlockAndTheDestructorDoNothing) {
  Probe probe;
  {
    TLock guard(probe);
    guard.Unlock();
    guard.Unlock();
    TReadLock reading(probe);
    reading.Unlock();
    reading.Unlock();
  }
  EXPECT_EQ(probe.unlocks, 2);
}

TEST(Guard, ConstructorThatRunsOutOfTimeThrowsAndUnlocksNothing) {
  Probe probe;
  probe.available = false;
  EXPECT_EQ(velt_test::system_code([&] { TLock guard(probe, 0); }), 258);
  EXPECT_EQ(velt_test::system_code([&] { TReadLock guard(probe, 0); }), 258);
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
