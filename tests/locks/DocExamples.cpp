// The examples of docs/locks.md, run.
#include <gtest/gtest.h>
#include <windows.h>

#include <map>
#include <string>
#include <thread>

#include "tests/support/DocExamples.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/CriticalSection.h"
#include "velt/locks/Event.h"
#include "velt/locks/Lock.h"
#include "velt/locks/MultiLockWithNotify.h"
#include "velt/locks/Mutex.h"
#include "velt/locks/Semaphore.h"
#include "velt/locks/TimedLock.h"
#include "velt/locks/WaitableTimer.h"

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

// The reader goes on as a writer, with nobody in between.
void ensure_entry(TMultiLock& lock, std::map<std::string, int>& table, std::string const& name) {
  lock.ReadLock();
  if (!table.contains(name)) {
    try {
      lock.WriteLock();
      table[name] = 0;
      lock.Unlock();
    } catch (EGeneric const&) {
      // Another reader is waiting to write: leave, and begin again as a writer.
      lock.Unlock();
      lock.WriteLock();
      table.try_emplace(name, 0);
    }
  }
  lock.Unlock();
}

// Readers stay out until the worker has stored the result.
void refresh(TMultiLock& lock, int& value) {
  lock.WriteLockThreadIndependent();
  std::jthread worker([&] {
    value = 42;
    lock.UnlockThreadIndependent();
  });
}

// Opens a file for its first user and closes it after the last.
class FileUsers : public TMultiLockWithNotify {
public:
  void OnReadLock() override { is_open = true; }
  void OnReadUnlock() override { is_open = false; }
  bool is_open = false;
};

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

TEST(LockDocExamples, UpgradeOfARead) {
  TMultiLock lock;
  std::map<std::string, int> table;
  ensure_entry(lock, table, "a");
  ensure_entry(lock, table, "a");
  EXPECT_EQ(table.size(), 1u);
  EXPECT_EQ(lock.GetStatusString(), "not_locked");
}

TEST(LockDocExamples, HoldThatChangesThreads) {
  TMultiLock lock;
  int value = 0;
  refresh(lock, value);
  EXPECT_EQ(value, 42);
  EXPECT_EQ(lock.GetStatusString(), "not_locked");
}

TEST(LockDocExamples, FirstAndLastUser) {
  FileUsers lock;
  lock.ReadLock();
  EXPECT_TRUE(lock.is_open);
  lock.Unlock();
  EXPECT_FALSE(lock.is_open);
}

TEST(LockDocExamples, BusyShare) {
  TMultiLock lock;
  TTimedLock timed(lock);
  timed.ReadLock();
  timed.Unlock();
  double const share = timed.get_busy();       // 0 to 1
  double const seconds = timed.get_elapsed();  // since it was made
  EXPECT_GT(share, 0.0);
  EXPECT_LE(share, 1.0);
  EXPECT_GT(seconds, 0.0);
}

TEST(LockDocExamples, Handle) {
  HANDLE const process = GetCurrentProcess();
  THandle shared(process), owned;  // a duplicate: the caller closes his own
  owned.AttachHandle(shared.DetachHandle());
  bool const running = owned.WaitForSingleObject(0, false) == WAIT_TIMEOUT;
  EXPECT_TRUE(running);
}

TEST(LockDocExamples, Mutex) {
  TMutex settings_file(L"Local\\velt example settings");
  TLock guard(settings_file, 5'000);
  EXPECT_FALSE([&] {
    bool other_got_it = true;
    std::thread([&] { other_got_it = settings_file.Lock(0); }).join();
    return other_got_it;
  }());
}

TEST(LockDocExamples, Semaphore) {
  TSemaphore connections(2);
  TLock first(connections), second(connections);
  bool const third = connections.Lock(0);  // false
  EXPECT_FALSE(third);
}

TEST(LockDocExamples, Event) {
  TEvent ready;
  std::jthread worker([&] { ready.Set(); });
  ready.WaitForSignal();
  EXPECT_TRUE(ready.Signaled(0));
}

TEST(LockDocExamples, WaitableTimer) {
  TWaitableTimer soon;
  soon.Set(20, 0);  // in 20 ms, once
  soon.WaitForSingleObject(0xFFFFFFFF, true);
  EXPECT_EQ(soon.WaitForSingleObject(0, false), WAIT_OBJECT_0);
}
