#include "velt/debug/DebugStream.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdio>

namespace {

// A test that runs over midnight would see two days.
SYSTEMTIME local_time_away_from_midnight() {
  SYSTEMTIME time;
  for (GetLocalTime(&time); time.wHour == 23 && time.wMinute == 59; GetLocalTime(&time))
    Sleep(100);
  return time;
}

int seconds_of_day(SYSTEMTIME const& time) {
  return (time.wHour * 60 + time.wMinute) * 60 + time.wSecond;
}
int seconds_of_day(char const* text) {
  int hour, minute, second;
  if (std::sscanf(text, "%2d:%2d:%2d", &hour, &minute, &second) != 3) return -1000;
  return (hour * 60 + minute) * 60 + second;
}

}  // namespace

TEST(TimeStamp, DateStandsBeforeTheTimeOnlyWhenTheDayChangesAndInTheOtherFormAlways) {
  auto const time = local_time_away_from_midnight();
  char date[20];
  std::snprintf(date, sizeof date, "%02d.%02d.%04d\n", time.wDay, time.wMonth, time.wYear);

  unsigned short last_day = 0;
  auto const first = now2(last_day), second = now2(last_day);
  EXPECT_EQ(last_day, time.wDay);
  ASSERT_EQ(first.size(), 24u);
  EXPECT_EQ(first.substr(0, 11), date);

  ASSERT_EQ(second.size(), 13u);
  EXPECT_NEAR(seconds_of_day(second.c_str()), seconds_of_day(time), 5);
  EXPECT_TRUE(second[8] == '.' && second[12] == ' ');

  last_day = static_cast<unsigned short>(time.wDay - 1);
  EXPECT_EQ(now2(last_day).substr(0, 11), date);

  // The other form has both, and a year of two digits.
  auto const both = now();
  std::snprintf(date, sizeof date, "%02d.%02d.%02d ", time.wDay, time.wMonth, time.wYear % 100);
  ASSERT_EQ(both.size(), 18u);
  EXPECT_EQ(both.substr(0, 9), date);
  EXPECT_NEAR(seconds_of_day(both.c_str() + 9), seconds_of_day(time), 5);
  EXPECT_EQ(both.back(), ' ');
}
