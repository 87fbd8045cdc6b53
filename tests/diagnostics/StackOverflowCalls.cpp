// The recovery by the platform calls that it makes, without an overflow.
#include <gtest/gtest.h>
#include <process.h>
#include <windows.h>

#include <string>

#include "tests/support/OpenHandles.h"
#include "tests/support/PlatformCalls.h"
#include "velt/diagnostics/StackOverflowException.h"

using namespace velt_test;

VELT_WATCH(CloseHandle)
VELT_WATCH(WaitForSingleObjectEx)
VELT_WATCH(_beginthreadex)

namespace {

constexpr char start_call[] = "_beginthreadex(none, 0, entry, handle, 0, out)";
constexpr char wait_call[] = "WaitForSingleObjectEx(handle, 4294967295, 1)";
constexpr char close_call[] = "CloseHandle(handle)";

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

TEST(StackOverflowCalls, AreThoseOfOneThread) {
  Watch watch;
  EXPECT_EQ(what_is_thrown(), "Stack Overflow");
  EXPECT_EQ(watch.calls, std::string(start_call) + wait_call + close_call);
}

TEST(StackOverflowCalls, QueuedMeanwhileAreRunAndWaitedBehind) {
  static int runs = 0;
  for (int i = 0; i < 3; ++i) QueueUserAPC([](ULONG_PTR) { ++runs; }, GetCurrentThread(), 0);
  Watch watch;
  EXPECT_EQ(what_is_thrown(), "Stack Overflow");
  EXPECT_EQ(runs, 3);
  EXPECT_TRUE(watch.calls.starts_with(std::string(start_call) + wait_call + wait_call))
      << watch.calls;
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
