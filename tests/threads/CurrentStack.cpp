#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <string>

#include "tests/threads/Support.h"
#include "velt/symbols/Symbols.h"

using namespace velt_test;

// A name that the stacks can be searched for.
[[gnu::noinline]] void wait_in_a_function_of_the_test(TEvent& event) {
  event.WaitForSignal();
  asm volatile("");
}

namespace {

// Starting the symbol engine takes far longer than a walk.
struct CurrentStack : ::testing::Test {
  static void SetUpTestSuite() { ASSERT_TRUE(SymInitialize()); }
  static void TearDownTestSuite() { SymCleanup(); }
};

}  // namespace

TEST_F(CurrentStack, OfAWaitingThreadShowsWhatItWaitsInOutermostFirst) {
  TEvent end;
  Worker worker([&] { wait_in_a_function_of_the_test(end); });
  EXPECT_EQ(worker.GetCurrentStack(), "");
  worker.start_into_body();
  std::string stack;
  auto const place = [&](char const* name) { return stack.find(name); };
  ASSERT_TRUE(eventually([&] {
    stack = worker.GetCurrentStack();
    return place("wait_in_a_function_of_the_test") != stack.npos;
  })) << stack;
  EXPECT_TRUE(stack.starts_with("\n-> ")) << stack;
  EXPECT_LT(place("StaticThreadEntry"), place("wait_in_a_function_of_the_test")) << stack;

  worker.SuspendThread();
  EXPECT_EQ(worker.GetCurrentStack(), "");
  EXPECT_EQ(::ResumeThread(worker), 2u) << "suspended once more";
  EXPECT_EQ(::ResumeThread(worker), 1u);
  EXPECT_NE(worker.GetCurrentStack(), "");
  end.Set();
  EXPECT_TRUE(worker.ended_within(patience));
  EXPECT_EQ(worker.GetCurrentStack(), "");
}

// The thread is stopped in the middle of the heap again and again: the walk must
// not wait for what it holds. Each walk is the first of its engine, which has most
// to remember.
TEST_F(CurrentStack, OfAThreadThatAllocatesComesBackEachTime) {
  std::atomic<bool> stop = false;
  Worker worker([&] {
    while (!stop) delete new std::string(200, 'x');
  });
  worker.start_into_body();
  SymCleanup();
  for (int i = 0; i < 5; ++i) EXPECT_NE(worker.GetCurrentStack(), "");
  ASSERT_TRUE(SymInitialize());
  stop = true;
}
