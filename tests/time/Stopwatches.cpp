// The watches, by clocks that the tests set.
#include "velt/time/Stopwatches.h"

#include "tests/support/Imports.h"

using velt_test::Replacement;

TEST(Stopwatches, CountTicksAcrossAWrapOfTheCounter) {
  DWORD now = 0xFFFFFFF0;
  Replacement const clock{VELT_CALL(GetTickCount), [&now](auto) { return now; }};
  _ticks_t const early;
  now = 0x10;
  EXPECT_EQ(early.get_elapsed_ticks(), 32u);
  EXPECT_EQ(early.get_elapsed(), 0.032);
  _ticks_t const late;
  EXPECT_EQ(late - early, 32);
  EXPECT_EQ(early - late, -32);
  EXPECT_TRUE(late < early && !(early < late)) << "the order does not mind the wrap";
  EXPECT_TRUE(late == _ticks_t() && !(late == early));
}

TEST(Stopwatches, LapsAddUpToTheWholeWithoutAGap) {
  __int64 now = 5'000'000'000;
  Replacement const clock{VELT_CALL(QueryPerformanceCounter), [&now](auto, LARGE_INTEGER* count) {
                            count->QuadPart = now++;
                            return TRUE;
                          }};
  _pcounter_t watch;
  now += 100;
  EXPECT_EQ(watch.get_elapsed_ticks_and_restart(), 101);
  EXPECT_EQ(watch.get_elapsed_ticks_and_restart(), 1);
  EXPECT_EQ(watch, 5'000'000'102);
  now += _PerformanceCounterFrequency.QuadPart / 2 - 1;
  EXPECT_NEAR(watch.get_elapsed(), 0.5, 1e-6);
  EXPECT_NEAR(watch.get_elapsed_restart(), 0.5, 1e-6);
}

TEST(Stopwatches, OfAThreadTakeItsOwnTimes) {
  constexpr __int64 high_word = 1ll << 32;
  DWORD now = 3;
  Replacement const clock{VELT_CALL(GetThreadTimes), [&now](auto, HANDLE thread, auto* made,
                                                            auto* ended, auto* kernel, auto* user) {
                            EXPECT_EQ(thread, GetCurrentThread());
                            *made = *ended = {0xFFFF, 0xFFFF};
                            *kernel = {now, 1};
                            *user = {now * 10, 2};
                            return TRUE;
                          }};
  _thread_user_times_t const user;
  _thread_kernel_times_t const kernel;
  _thread_times_t const both;
  EXPECT_TRUE(user == 2 * high_word + 30 && kernel == high_word + 3 && both == 3 * high_word + 33);
  now += 10'000'000;
  EXPECT_TRUE(user.get_elapsed() == 10 && kernel.get_elapsed() == 1);
  EXPECT_EQ(both.get_elapsed_ticks(), 110'000'000);
}
