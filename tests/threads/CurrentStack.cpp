#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <string>

#include "tests/threads/Support.h"
#include "velt/diagnostics/Symbols.h"
#include "velt/threads/ThreadClass.h"

using namespace velt_test;

// Names that the stacks can be searched for.
[[gnu::noinline]] void wait_in_a_function_of_the_test(TEvent& event) {
  event.WaitForSignal();
  asm volatile("");
}

[[gnu::noinline]] void compute_in_a_function_of_the_test(std::atomic<bool>& stop) {
  while (!stop) YieldProcessor();
  asm volatile("");
}

namespace {

// Starting the symbol engine takes far longer than a walk.
struct CurrentStack : ::testing::Test {
  static void SetUpTestSuite() { ASSERT_TRUE(SymInitialize()); }
  static void TearDownTestSuite() { SymCleanup(); }
};

std::size_t place(std::string const& text, char const* name) { return text.find(name); }

}  // namespace

TEST_F(CurrentStack, OfAWaitingThreadShowsWhatItWaitsInOutermostFirst) {
  TEvent end;
  Worker worker([&] { wait_in_a_function_of_the_test(end); });
  worker.start_into_body();
  ::Sleep(20);
  std::string const stack = worker.GetCurrentStack();
  EXPECT_TRUE(stack.starts_with("\n-> ")) << stack;
  auto const entry = place(stack, "StaticThreadEntry"),
             waiting = place(stack, "wait_in_a_function_of_the_test");
  ASSERT_NE(waiting, stack.npos) << stack;
  EXPECT_LT(entry, waiting) << stack;
  EXPECT_FALSE(worker.ended_within(0));
  end.Set();
}

TEST_F(CurrentStack, OfARunningThreadIsTakenWhereItIsAndItRunsOn) {
  std::atomic<bool> stop = false;
  Worker worker([&] { compute_in_a_function_of_the_test(stop); });
  worker.start_into_body();
  ::Sleep(20);
  std::string const stack = worker.GetCurrentStack();
  EXPECT_NE(place(stack, "compute_in_a_function_of_the_test"), stack.npos) << stack;
  stop = true;
  EXPECT_TRUE(worker.ended_within(patience));
}

TEST_F(CurrentStack, OfASuspendedThreadIsEmptyAndTheThreadOnceMoreSuspended) {
  TEvent end;
  Worker worker([&] { end.WaitForSignal(); });
  worker.start_into_body();
  worker.SuspendThread();
  EXPECT_EQ(worker.GetCurrentStack(), "");
  EXPECT_EQ(::ResumeThread(worker), 2u);
  EXPECT_EQ(::ResumeThread(worker), 1u);
  EXPECT_NE(worker.GetCurrentStack(), "");
  end.Set();
}

TEST_F(CurrentStack, OfNoThreadAndOfAnEndedOneIsEmpty) {
  Worker worker([] {});
  EXPECT_EQ(worker.GetCurrentStack(), "");
  worker.StartThread();
  EXPECT_TRUE(worker.ended_within(patience));
  EXPECT_EQ(worker.GetCurrentStack(), "");
}

// The thread is stopped in the middle of the heap again and again: the walk must
// not wait for what it holds.
TEST_F(CurrentStack, OfAThreadThatAllocatesComesBackEachTime) {
  std::atomic<bool> stop = false;
  Worker worker([&] {
    while (!stop) delete new std::string(200, 'x');
  });
  worker.start_into_body();
  for (int i = 0; i < 30; ++i) EXPECT_NE(worker.GetCurrentStack(), "");
  stop = true;
}
