// The recovery by the platform calls that it makes, without an overflow.
#include <gtest/gtest.h>
#include <process.h>
#include <windows.h>

#include <string>

#include "tests/support/OpenHandles.h"
#include "tests/support/PlatformCalls.h"
#include "velt/faults/StackOverflowException.h"

using namespace velt_test;

VELT_WATCH(CloseHandle)
VELT_WATCH(WaitForSingleObjectEx)
VELT_WATCH(_beginthreadex)

namespace {

[[noreturn]] void throw_overflow() {
  EXCEPTION_RECORD record{};
  CONTEXT context{};
  EXCEPTION_POINTERS pointers{&record, &context};
  EStackOverflowException::Throw(&pointers, 0);
}

std::string what_is_thrown() {
  try {
    throw_overflow();
  } catch (EStackOverflowException& error) {
    return error["Text"];
  }
}

}  // namespace

// One wait more where queued calls were run.
TEST(StackOverflowCalls, AreThoseOfOneThreadAndRunQueuedOnesMeanwhile) {
  static int runs = 0;
  for (int i = 0; i < 3; ++i) QueueUserAPC([](ULONG_PTR) { ++runs; }, GetCurrentThread(), 0);
  std::string const start = "_beginthreadex(none, 0, entry, handle, 0, out)",
                    wait = "WaitForSingleObjectEx(handle, 4294967295, 1)";
  for (auto const& waiting : {wait + wait, wait}) {
    Watch watch;
    EXPECT_EQ(what_is_thrown(), "Stack Overflow");
    EXPECT_EQ(watch.calls, start + waiting + "CloseHandle(handle)");
    EXPECT_EQ(runs, 3);
  }
}

TEST(StackOverflowCalls, ThatFailAreThrownInstead) {
  ASSERT_EQ(what_is_thrown(), "Stack Overflow");
  long const before = open_handles();
  for (char const* call : {"_beginthreadex", "CloseHandle"}) {
    {
      Watch watch(call);
      EXPECT_EQ(system_code(throw_overflow), injected_code) << call;
    }
    EXPECT_EQ(what_is_thrown(), "Stack Overflow") << "after " << call;
  }
  EXPECT_TRUE(velt_test::open_handles_fall_to(before));
}
