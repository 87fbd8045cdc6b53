#include "velt/time/Stopwatches.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <thread>

namespace {

_ticks_t ticks_started_at(unsigned long start) { return std::bit_cast<_ticks_t>(start); }

// Spins until the watch moves; the clocks of CPU time are coarse.
template <class Watch>
void work_until_seen(Watch const& watch) {
  _pcounter_t const limit;
  volatile double sink = 0;
  while (watch.get_elapsed_ticks() < 100'000 && limit.get_elapsed() < 10.0)
    for (int i = 0; i < 100'000; ++i) sink = sink + std::sqrt(i);
}

__int64 number(FILETIME const& time) {
  ULARGE_INTEGER const whole{.u = {time.dwLowDateTime, time.dwHighDateTime}};
  return static_cast<__int64>(whole.QuadPart);
}

struct ThreadTimes {
  __int64 kernel, user;
};

ThreadTimes platform_times() {
  FILETIME unwanted, kernel, user;
  GetThreadTimes(GetCurrentThread(), &unwanted, &unwanted, &kernel, &user);
  return {number(kernel), number(user)};
}

}  // namespace

TEST(Ticks, SpanAcrossAWrapOfTheCounterIsRight) {
  auto const watch = ticks_started_at(0xFFFFFF00);
  auto const before = GetTickCount();
  auto const elapsed = watch.get_elapsed_ticks();
  ASSERT_LT(before, 0xFFFFFF00) << "the machine runs for too long: the span has no wrap";
  EXPECT_GE(elapsed, before + 0x100);
  EXPECT_LE(elapsed, GetTickCount() + 0x100);
  EXPECT_NEAR(watch.get_elapsed(), elapsed / 1000.0, 1.0);
}

TEST(Ticks, DifferenceOfStartsMindsTheWrapAndTheirOrderDoesNot) {
  auto const a = ticks_started_at(0xFFFFFFF0), b = ticks_started_at(0x10);
  EXPECT_EQ(b - a, 32);
  EXPECT_EQ(a - b, -32);
  EXPECT_FALSE(a < b);
  EXPECT_TRUE(b < a);
  EXPECT_TRUE(a == ticks_started_at(0xFFFFFFF0));
  EXPECT_FALSE(a == b);
}

TEST(PerformanceCounter, LapsAddUpToTheWholeWithoutAGap) {
  _pcounter_t watch;
  __int64 const first_start = watch;
  Sleep(2);
  auto const first = watch.get_elapsed_ticks_and_restart();
  auto const second = watch.get_elapsed_ticks_and_restart();
  EXPECT_EQ(first + second, watch - first_start);
  EXPECT_LT(second, first);
  Sleep(2);
  auto const third = watch.get_elapsed_restart();
  EXPECT_GE(third, 0.001);
  EXPECT_LT(third, 1.0);
}

TEST(ThreadTimes, EachWatchTakesItsOwnClock) {
  work_until_seen(_thread_user_times_t());
  auto const before = platform_times();
  __int64 const user = _thread_user_times_t();
  __int64 const kernel = _thread_kernel_times_t();
  __int64 const both = _thread_times_t();
  auto const after = platform_times();
  ASSERT_NE(before.user, before.kernel);
  EXPECT_TRUE(before.user <= user && user <= after.user);
  EXPECT_TRUE(before.kernel <= kernel && kernel <= after.kernel);
  EXPECT_TRUE(before.user + before.kernel <= both && both <= after.user + after.kernel);
}

TEST(ThreadTimes, SleepAndWorkOfOtherThreadsDoNotCount) {
  _pcounter_t const clock;
  _thread_times_t const watch;
  std::thread([] { work_until_seen(_thread_user_times_t()); }).join();
  Sleep(50);
  EXPECT_GE(clock.get_elapsed(), 0.05);
  EXPECT_LT(watch.get_elapsed(), clock.get_elapsed() / 2);
}
