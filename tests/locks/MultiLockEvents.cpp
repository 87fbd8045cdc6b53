// The events of a TMultiLock, by the calls that change them.
#include <gtest/gtest.h>
#include <windows.h>

#include "tests/locks/Agent.h"
#include "tests/support/Imports.h"
#include "velt/locks/MultiLock.h"

using namespace velt_test;

TEST(MultiLockEvents, ChangeOnlyWhileSomebodyWaitsAndThenServeTheNextWaiter) {
  TMultiLock lock;
  Agent a("A"), b("B");
  int calls = 0;
  Replacement const set{VELT_CALL(SetEvent), [&](auto platform, HANDLE event) {
                          return ++calls, platform(event);
                        }};
  Replacement const reset{VELT_CALL(ResetEvent), [&](auto platform, HANDLE event) {
                            return ++calls, platform(event);
                          }};
  for (int round = 0; round < 3; ++round) {
    // Readers that wait for the end of a write hold and for that of the last hold.
    lock.ReadLock();
    lock.WriteLock();
    EXPECT_FALSE(a.ask([&] { return lock.ReadLock(1); }));
    b.start([&] { lock.ReadLock(); });
    EXPECT_TRUE(b.waits());
    lock.Unlock();
    b.finish();
    lock.Unlock();
    b.run([&] { lock.Unlock(); });

    calls = 0;
    for (int i = 0; i < 10; ++i) {
      lock.ReadLock();
      lock.WriteLock();
      lock.Unlock();
      lock.Unlock();
    }
    EXPECT_EQ(calls, 0);
  }
}
