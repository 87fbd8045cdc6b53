// The examples of docs/locks.md, run.
#include <gtest/gtest.h>

#include "tests/support/DocExamples.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/CriticalSection.h"
#include "velt/locks/Lock.h"

namespace {

class Counter {
public:
  void add() {
    TLock guard(lock);
    ++count;
  }
  int value() const {
    TLock guard(lock);
    return count;
  }

private:
  TCriticalSection lock;
  int count = 0;
};

// Somebody else's, for ever.
struct BusyLock final : ILock {
  bool Lock(unsigned int) override { return false; }
  void Lock() override {}
  void Unlock() override {}
};

bool try_for_a_moment(ILock& shared) {
  try {
    TLock guard(shared, 200);
    return true;
  } catch (ESystemException const& e) {
    if (e["Code"].as_int() != 258) throw;
    return false;
  }
}

}  // namespace

TEST(LockDocExamples, StandOnThePageAsTheyRunHere) {
  velt_test::expect_doc_examples_run("locks.md", __FILE__);
}

TEST(LockDocExamples, GuardedCounter) {
  Counter counter;
  counter.add();
  EXPECT_EQ(counter.value(), 1);
}

TEST(LockDocExamples, GuardWithALimit) {
  BusyLock busy;
  EXPECT_FALSE(try_for_a_moment(busy));
}
