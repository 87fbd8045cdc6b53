#include "velt/threads/Thread.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <string>

#include "tests/support/OpenHandles.h"
#include "tests/support/SystemCode.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/Event.h"

using velt_test::open_handles;
using velt_test::system_code;

namespace {

unsigned int answer(void*) { return 42; }

unsigned int wait_alertably_for(void* event) {
  static_cast<TEvent*>(event)->WaitForSignal();
  return 7;
}

DWORD exit_code(TThread const& thread) {
  DWORD code = 0;
  GetExitCodeThread(thread, &code);
  return code;
}

// A thread that waits for an event, alertably, until the test ends.
class WaitingThread : public ::testing::Test {
protected:
  ~WaitingThread() noexcept override {
    end.Set();
    ::WaitForSingleObject(thread, INFINITE);
  }

  int priority() const { return GetThreadPriority(thread); }

  TEvent end;
  TThread thread{wait_alertably_for, &end};
};

}  // namespace

TEST(Thread, RunsItsEntryAndKeepsTheHandleToTheEnd) {
  long const before = open_handles();
  {
    TThread thread(answer, nullptr);
    EXPECT_EQ(thread.WaitForSingleObject(INFINITE, FALSE), WAIT_OBJECT_0);
    EXPECT_EQ(exit_code(thread), 42u);
    TThread const copy = thread;
    EXPECT_NE(static_cast<void*>(copy), static_cast<void*>(thread));
    EXPECT_EQ(exit_code(copy), 42u);
  }
  EXPECT_TRUE(velt_test::open_handles_fall_to(before));
}

TEST(Thread, CreationOverwritesTheEarlierHandleAndDoesNotCloseIt) {
  long const before = open_handles();
  {
    TThread thread(answer, nullptr);
    void* const earlier = thread;
    thread.CreateThread(answer, nullptr, 1 << 20);
    EXPECT_EQ(::WaitForSingleObject(earlier, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(::WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    CloseHandle(earlier);
  }
  EXPECT_TRUE(velt_test::open_handles_fall_to(before));
}

TEST(Thread, StackIsAsLargeAsAskedFor) {
  TThread thread(DoNotInitialize);
  thread.CreateThread(
      [](void*) -> unsigned int {
        ULONG_PTR low, high;
        GetCurrentThreadStackLimits(&low, &high);
        return static_cast<unsigned int>(high - low);
      },
      nullptr, 3 << 20);
  ::WaitForSingleObject(thread, INFINITE);
  EXPECT_GE(exit_code(thread), 3u << 20);
}

TEST_F(WaitingThread, PriorityGoesToThePlatformAlsoByTheNameOfTheBoost) {
  thread.SetThreadPriority(THREAD_PRIORITY_LOWEST);
  EXPECT_EQ(priority(), THREAD_PRIORITY_LOWEST);
  BOOL boost_before, boost_after;
  GetThreadPriorityBoost(thread, &boost_before);
  thread.DisableThreadPriorityBoost(true);
  EXPECT_EQ(priority(), 1);
  thread.DisableThreadPriorityBoost(false);
  EXPECT_EQ(priority(), 0);
  GetThreadPriorityBoost(thread, &boost_after);
  EXPECT_EQ(boost_after, boost_before);
}

TEST_F(WaitingThread, SuspendedThreadStandsStillUntilItIsResumedAsOften) {
  thread.SuspendThread();
  thread.SuspendThread();
  end.Set();
  EXPECT_EQ(::WaitForSingleObject(thread, 50), WAIT_TIMEOUT);
  thread.ResumeThread();
  EXPECT_EQ(::WaitForSingleObject(thread, 50), WAIT_TIMEOUT);
  thread.ResumeThread();
  EXPECT_EQ(::WaitForSingleObject(thread, 30'000), WAIT_OBJECT_0);
  EXPECT_EQ(exit_code(thread), 7u);
}

TEST_F(WaitingThread, QueuedCallRunsOnTheThreadInItsAlertableWait) {
  struct Seen {
    std::atomic<DWORD> thread = 0;
    TEvent done;
  } seen;
  thread.QueueUserAPC(
      [](unsigned __int64 place) {
        auto& found = *reinterpret_cast<Seen*>(place);
        found.thread = GetCurrentThreadId();
        found.done.Set();
      },
      reinterpret_cast<std::uintptr_t>(&seen));
  EXPECT_EQ(::WaitForSingleObject(seen.done, 30'000), WAIT_OBJECT_0);
  EXPECT_EQ(seen.thread, GetThreadId(thread));
}

TEST_F(WaitingThread, TokenIsGivenAndTakenAway) {
  THandle token, impersonation;
  HANDLE opened, duplicate, found;
  ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_DUPLICATE | TOKEN_QUERY, &opened));
  token.AttachHandle(opened);
  ASSERT_TRUE(DuplicateToken(token, SecurityImpersonation, &duplicate));
  impersonation.AttachHandle(duplicate);
  thread.SetThreadToken(impersonation);
  ASSERT_TRUE(OpenThreadToken(thread, TOKEN_QUERY, TRUE, &found));
  CloseHandle(found);
  thread.SetThreadToken(nullptr);
  EXPECT_FALSE(OpenThreadToken(thread, TOKEN_QUERY, TRUE, &found));
}

TEST_F(WaitingThread, TerminatedThreadEndsWithTheCodeGiven) {
  thread.TerminateThread(99);
  EXPECT_EQ(::WaitForSingleObject(thread, 30'000), WAIT_OBJECT_0);
  EXPECT_EQ(exit_code(thread), 99u);
}

TEST(Thread, EndedThreadTakesNoQueuedCall) {
  TThread thread(answer, nullptr);
  ::WaitForSingleObject(thread, INFINITE);
  EXPECT_EQ(system_code([&] { thread.QueueUserAPC([](unsigned __int64) {}, 0); }),
            ERROR_GEN_FAILURE);
}

TEST(Thread, SleepHeedsQueuedCallsIfAsked) {
  static int calls;
  calls = 0;
  TThread self(DoNotInitialize);
  self.THandle::operator=(GetCurrentThread());
  auto const queue = [&](void (*routine)(unsigned __int64)) { self.QueueUserAPC(routine, 0); };
  auto const count = [](unsigned __int64) { ++calls; };

  queue(count);
  TThread::Sleep(1, FALSE);
  EXPECT_EQ(calls, 0);
  TThread::Sleep(60'000, TRUE);
  EXPECT_EQ(calls, 1);
  queue(count);
  TThread::Pause();
  EXPECT_EQ(calls, 2);
  queue([](unsigned __int64) { throw EThreadInterrupt(); });
  EXPECT_THROW(TThread::Pause(), EThreadInterrupt);
}
