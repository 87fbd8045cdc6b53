#include "velt/time/Time.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <comutil.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "velt/exceptions/EGeneric.h"
#include "velt/value/Value.h"

static_assert(sizeof(_time_t) == 8 && std::is_trivially_copyable_v<_time_t>);

namespace {

// The protected core with its flag.
struct Core : _time_t {
  using _time_t::mktime;
};

__int64 const beyond_the_run_time = 1ll << 62;
__int64 const last_second_of_3000 = 32'535'215'999;

SYSTEMTIME system_time(int year, int month, int day, int hour, int minute, int second) {
  auto const word = [](int value) { return static_cast<WORD>(value); };
  return {word(year), word(month), 7, word(day), word(hour), word(minute), word(second), 999};
}

bool same(SYSTEMTIME const& a, SYSTEMTIME const& b) { return !std::memcmp(&a, &b, sizeof a); }

tm record_of(int year, int month, int day, int hour, int minute, int second, int daylight_saving) {
  tm record{};
  record.tm_year = year - 1900;
  record.tm_mon = month - 1;
  record.tm_mday = day;
  record.tm_hour = hour;
  record.tm_min = minute;
  record.tm_sec = second;
  record.tm_isdst = daylight_saving;
  return record;
}

// Random fields within their ranges, and somewhat beyond.
struct RandomFields {
  std::mt19937 random;

  int pick(int low, int high) { return std::uniform_int_distribution(low, high)(random); }

  template <class Check>
  void ordinary(int count, Check check) {
    for (; count > 0 && !testing::Test::HasFailure(); --count)
      check(pick(1971, 2999), pick(1, 12), pick(1, 31), pick(0, 23), pick(0, 59), pick(0, 59));
  }
  template <class Check>
  void beyond(int count, Check check) {
    for (; count > 0 && !testing::Test::HasFailure(); --count)
      check(pick(1965, 3003), pick(-3, 16), pick(-3, 35), pick(-2, 26), pick(-5, 65),
            pick(-5, 65));
  }
};

// The zone that the build asked for, empty for the machine's own.
std::string test_zone() {
  char const* const zone = std::getenv("VELT_TEST_ZONE");
  return zone ? zone : "";
}

long zone_offset() {
  _tzset();
  return _timezone;
}

}  // namespace

TEST(Time, ZoneOfTheRunIsTheOneAskedFor) {
  if (test_zone().empty()) GTEST_SKIP() << "no zone was asked for";
  EXPECT_EQ(zone_offset(), test_zone() == "EST5EDT" ? 5 * 3600 : -3600);
}

TEST(Time, RecordIsReadAsLocalAndNormalisedInPlace) {
  tm const day = record_of(2004, 4, 31, 0, 0, 0, -1);
  tm by_reference = day, by_pointer = day, assigned = day, by_run_time = day;
  _time_t const t(std::as_const(by_reference));
  EXPECT_EQ(t, _mktime64(&by_run_time));
  EXPECT_EQ(_time_t(&by_pointer), t);
  _time_t other;
  other = assigned;
  EXPECT_EQ(other, t);
  for (tm const* record : {&by_reference, &by_pointer, &assigned})
    EXPECT_TRUE(record->tm_mon == 4 && record->tm_mday == 1);
}

TEST(Time, LocalFieldsAreReadAsTheRunTimeReadsThem) {
  RandomFields fields{std::mt19937(1)};
  auto const check = [](auto... f) {
    tm record = record_of(f..., -1);
    EXPECT_EQ(_time_t::mktime(f...), _mktime64(&record))
        << testing::PrintToString(std::tuple(f...));
  };
  fields.ordinary(10'000, check);
  fields.beyond(10'000, check);
}

// The rule is the run time's: read as standard time of the zone, less its
// offset. Most of the library's answers are computed without it.
TEST(Time, UtcFieldsGiveTheStandardTimeOfTheZoneLessItsOffset) {
  RandomFields fields{std::mt19937(2)};
  auto const check = [](auto... f) {
    tm record = record_of(f..., 0);
    EXPECT_EQ(Core::mktime(f..., true), _mktime64(&record) - zone_offset())
        << testing::PrintToString(std::tuple(f...));
  };
  fields.ordinary(50'000, check);
  fields.beyond(20'000, check);
  for (int year = 1968; year < 3003 && !HasFailure(); ++year) {
    check(year, 2, 28, 23, 59, 59);
    check(year, 3, 1, 0, 0, 0);
    check(year, 12, 31, 23, 59, 59);
  }
  EXPECT_EQ(Core::mktime(1950, 1, 1, 0, 0, 0, true), -1 - zone_offset()) << "refused as -1";
}

TEST(Time, SystemTimeGoesThroughUtcAndBackWithoutTheZone) {
  auto const fields = system_time(2004, 2, 29, 12, 30, 45);
  auto expected = fields;
  expected.wDayOfWeek = expected.wMilliseconds = 0;
  auto const t = _time_t::mktime(fields, true);
  EXPECT_EQ(t, 1078057845);
  EXPECT_EQ(_time_t::mkgmtime(record_of(2004, 2, 29, 12, 30, 45, 0)), t);
  EXPECT_TRUE(same(t.systemtime(), expected));
  auto const local = _time_t::mktime(fields, false);
  EXPECT_TRUE(same(local.localsystemtime(), expected));
  EXPECT_EQ(local - t, zone_offset());
}

TEST(Time, FileTimeCountsFromItsOwnEpoch) {
  FILETIME const file_time = _time_t(1078057845).filetime();
  ULARGE_INTEGER number{.u = {file_time.dwLowDateTime, file_time.dwHighDateTime}};
  EXPECT_EQ(number.QuadPart, (1078057845 + 11'644'473'600ull) * 10'000'000);
  EXPECT_EQ(_time_t::mktime(file_time, true), 1078057845);
}

TEST(Time, VariantDateAndTimeAreInverseToTheSecond) {
  EXPECT_EQ(_time_t::mktime(25569.5, true), 12 * 3600);
  EXPECT_EQ(_time_t(12 * 3600).varianttime(), 25569.5);
  std::mt19937_64 random(3);
  std::uniform_int_distribution<__int64> any(0, last_second_of_3000);
  for (int i = 0; i < 20'000; ++i) {
    _time_t const t(any(random));
    ASSERT_EQ(_time_t::mktime(t.varianttime(), true), t);
  }
  auto const summer = _time_t::mktime(2004, 7, 1, 12, 30, 45);
  EXPECT_EQ(_time_t::mktime(summer.localvarianttime(), false), summer);
}

TEST(Time, DateOfAVariantIsTakenWithoutALookAtItsTagAndZeroIsNoTime) {
  EXPECT_EQ(_time_t(_variant_t(25569.5, VT_DATE), true), 12 * 3600);
  EXPECT_EQ(_time_t(_variant_t(25569.5, VT_R8), true), 12 * 3600);
  EXPECT_EQ(_time_t(_variant_t(25569.5, VT_DATE), false), 12 * 3600 + zone_offset());
  EXPECT_EQ(_time_t::invalid.varianttime(), 0.0);
  for (double const date : {0.0, 1e300, -1e9, std::nan("")})
    EXPECT_FALSE(_time_t(_variant_t(date, VT_DATE), true).valid()) << date;
}

TEST(Time, LocalDaysBeginAtMidnightWhateverTheirLength) {
  std::set<__int64> lengths;
  auto const at_midnight = [](_time_t t) {
    tm const record = t.localtime();
    return record.tm_hour == 0 && record.tm_min == 0 && record.tm_sec == 0;
  };
  // 11 hours and some: two or three moments in every day, at changing hours.
  for (_time_t t = 1072915200; t < 1072915200 + 2 * 366 * 86400; t = t + 41'234) {
    auto const day = t.trunc2localday(), next = t.nextlocalday(), previous = t.prevlocalday();
    lengths.insert((next - day) / 3600);
    ASSERT_TRUE(day <= t && t < next && previous < day) << t;
    ASSERT_TRUE(at_midnight(day) && at_midnight(next) && at_midnight(previous)) << t;
    ASSERT_EQ(day.localtime().tm_mday, t.localtime().tm_mday) << t;
    ASSERT_EQ(day.localtime().tm_yday, _time_t(next - 1).localtime().tm_yday) << t;
    ASSERT_EQ(previous.nextlocalday(), day) << t;
  }
  if (!test_zone().empty()) {
    EXPECT_EQ(lengths, (std::set<__int64>{23, 24, 25}));
  }
}

TEST(Time, WhatTheRunTimeRefusesLooksLikeNoTime) {
  for (_time_t const t : {_time_t::invalid, _time_t(-86400), _time_t(beyond_the_run_time)}) {
    EXPECT_EQ(t.gmtime().tm_mday, -1);
    EXPECT_EQ(t.localtime().tm_mday, -1);
    EXPECT_EQ(t.systemtime().wMonth, 0);
    EXPECT_EQ(t.localsystemtime().wDay, 65535);
    EXPECT_EQ(t.ctime(), "<invalid time>");
    EXPECT_EQ(t.iso8601time(), "<invalid time>");
    EXPECT_FALSE(t.trunc2localday().valid());
    EXPECT_FALSE(t.prevlocalday().valid());
    EXPECT_EQ(t.nextlocalday(), 0);
  }
}

TEST(Time, ImpossibleConversionsThrowTheFailedCondition) {
  struct Row {
    std::function<void()> convert;
    std::string condition;
    int line;
    std::string function;
  };
  std::string const variant = "SystemTimeToVariantTime( &SystemTime, &VariantTime ) != 0";
  std::string const file = "SystemTimeToFileTime( &SystemTime, &FileTime ) != 0";
  FILETIME const no_file_time{0, 0xFFFFFFFF};
  _time_t const late(beyond_the_run_time), invalid = _time_t::invalid;
  Row const rows[] = {
      {[&] { _time_t::mktime(no_file_time, true); },
       "FileTimeToSystemTime( &FileTime, &SystemTime )", 132, "_time_t::mktime"},
      {[&] { late.varianttime(); }, variant, 191, "_time_t::varianttime"},
      {[&] { late.localvarianttime(); }, variant, 204, "_time_t::localvarianttime"},
      {[&] { invalid.localvarianttime(); }, variant, 204, "_time_t::localvarianttime"},
      {[&] { late.filetime(); }, file, 277, "_time_t::filetime"},
      {[&] { invalid.filetime(); }, file, 277, "_time_t::filetime"},
  };
  for (auto const& row : rows) {
    SCOPED_TRACE(row.function);
    try {
      row.convert();
      ADD_FAILURE() << "nothing was thrown";
    } catch (EGeneric const& e) {
      EXPECT_EQ(e["Condition"].as_string(), row.condition);
      EXPECT_EQ(e["SourceLine"].as_int(), row.line);
      EXPECT_EQ(e["SourceFunction"].as_string(), row.function);
    }
  }
}
