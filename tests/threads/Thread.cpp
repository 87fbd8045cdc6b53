#include "velt/threads/Thread.h"

#include <gtest/gtest.h>
#include <windows.h>

#include "tests/support/OpenHandles.h"
#include "tests/support/Expect.h"
#include "velt/exceptions/ExceptionFamily.h"

namespace {

unsigned int answer(void* number) { return *static_cast<unsigned int*>(number); }
unsigned int number = 42;

unsigned int size_of_stack(void*) {
  ULONG_PTR low, high;
  GetCurrentThreadStackLimits(&low, &high);
  return static_cast<unsigned int>(high - low);
}

DWORD exit_code(TThread const& thread) {
  DWORD code = 0;
  ::WaitForSingleObject(thread, INFINITE);
  GetExitCodeThread(thread, &code);
  return code;
}

}  // namespace

TEST(Thread, CreationOverwritesTheEarlierHandleAndDoesNotCloseIt) {
  long const before = velt_test::open_handles();
  {
    TThread thread(answer, &number), earlier(DoNotInitialize);
    earlier.AttachHandle(thread);
    thread.CreateThread(size_of_stack, nullptr, 3 << 20);
    EXPECT_EQ(exit_code(earlier), 42u);
    EXPECT_GE(exit_code(thread), 3u << 20);
    TThread const copy = earlier;
    EXPECT_EQ(exit_code(copy), 42u);
    EXPECT_EQ(velt_test::system_code([&] { thread.QueueUserAPC([](unsigned __int64) {}, 0); }),
              ERROR_GEN_FAILURE);
  }
  EXPECT_TRUE(velt_test::open_handles_fall_to(before));
}

TEST(Thread, SleepHeedsQueuedCallsIfAsked) {
  static int calls;
  calls = 0;
  TThread self(DoNotInitialize);
  self.THandle::operator=(GetCurrentThread());
  auto const queue = [&](void (*routine)(unsigned __int64)) { self.QueueUserAPC(routine, 2); };
  auto const count = [](unsigned __int64 by) { calls += static_cast<int>(by); };

  queue(count);
  TThread::Sleep(1, FALSE);
  EXPECT_EQ(calls, 0);
  TThread::Sleep(60'000, TRUE);
  EXPECT_EQ(calls, 2);
  queue(count);
  TThread::Pause();
  EXPECT_EQ(calls, 4);
  queue([](unsigned __int64) { throw EThreadInterrupt(); });
  EXPECT_THROW(TThread::Pause(), EThreadInterrupt);
}
