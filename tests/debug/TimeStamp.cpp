#include "velt/debug/TimeStamp.h"

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

int seconds_of_day(int hour, int minute, int second) { return (hour * 60 + minute) * 60 + second; }

}  // namespace

TEST(TimeStamp, DateStandsBeforeTheTimeOnlyWhenTheDayChanges) {
  auto const time = local_time_away_from_midnight();
  char date[20];
  std::snprintf(date, sizeof date, "%02d.%02d.%04d\n", time.wDay, time.wMonth, time.wYear);

  unsigned short last_day = 0;
  auto const first = now2(last_day), second = now2(last_day);
  EXPECT_EQ(last_day, time.wDay);
  ASSERT_EQ(first.size(), 24u);
  EXPECT_EQ(first.substr(0, 11), date);

  ASSERT_EQ(second.size(), 13u);
  int hour, minute, seconds, milliseconds, used = 0;
  EXPECT_EQ(std::sscanf(second.c_str(), "%2d:%2d:%2d.%3d %n", &hour, &minute, &seconds,
                        &milliseconds, &used), 4);
  EXPECT_EQ(used, 13);
  EXPECT_EQ(second.back(), ' ');
  EXPECT_NEAR(seconds_of_day(hour, minute, seconds),
              seconds_of_day(time.wHour, time.wMinute, time.wSecond), 5);

  last_day = static_cast<unsigned short>(time.wDay - 1);
  EXPECT_EQ(now2(last_day).substr(0, 11), date);
}

TEST(TimeStamp, ShortFormHasTheDateOfTwoDigitYearsAndABlankBehind) {
  auto const time = local_time_away_from_midnight();
  auto const text = now();
  int day, month, year, hour, minute, second, used = 0;
  ASSERT_EQ(std::sscanf(text.c_str(), "%2d.%2d.%2d %2d:%2d:%2d%n", &day, &month, &year, &hour,
                        &minute, &second, &used), 6);
  EXPECT_EQ(used, 17);
  EXPECT_EQ(text.substr(17), " ");
  EXPECT_EQ(day, time.wDay);
  EXPECT_EQ(month, time.wMonth);
  EXPECT_EQ(year, time.wYear % 100);
  EXPECT_NEAR(seconds_of_day(hour, minute, second),
              seconds_of_day(time.wHour, time.wMinute, time.wSecond), 5);
}
