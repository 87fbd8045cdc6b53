#include "velt/time/Time.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <comutil.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <set>
#include <string>
#include <utility>

#include "tests/support/Expect.h"
#include "velt/value/Value.h"

static_assert(sizeof(_time_t) == 8 && std::is_trivially_copyable_v<_time_t>);

namespace {

class Time : public testing::Test {
protected:
  int pick(int low, int high) { return std::uniform_int_distribution(low, high)(random); }
  __int64 any_second() {
    return std::uniform_int_distribution<__int64>(0, last_second_of_3000)(random);
  }

  static constexpr __int64 last_second_of_3000 = 32'535'215'999, beyond_the_run_time = 1ll << 62;

  std::mt19937_64 random{1};
};

// The protected core with its flag.
struct Core : _time_t {
  using _time_t::mktime;
};

bool same(SYSTEMTIME const& a, SYSTEMTIME const& b) { return !std::memcmp(&a, &b, sizeof a); }

tm record_of(int year, int month, int day, int hour, int minute, int second, int daylight_saving) {
  return {.tm_sec = second, .tm_min = minute, .tm_hour = hour, .tm_mday = day,
          .tm_mon = month - 1, .tm_year = year - 1900, .tm_wday = 0, .tm_yday = 0,
          .tm_isdst = daylight_saving};
}

}  // namespace

TEST_F(Time, RecordIsReadAsLocalAndNormalisedInPlace) {
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

// The rule of UTC is the run time's: read as standard time of the zone, less its
// offset.
TEST_F(Time, FieldsAreReadAsTheRunTimeReadsThem) {
  auto const check = [](auto... f) {
    tm local = record_of(f..., -1), utc = record_of(f..., 0);
    EXPECT_EQ(_time_t::mktime(f...), _mktime64(&local)) << testing::PrintToString(std::tuple(f...));
    EXPECT_EQ(Core::mktime(f..., true), _mktime64(&utc) - _timezone)
        << testing::PrintToString(std::tuple(f...));
  };
  for (int i = 0; i < 10'000 && !HasFailure(); ++i) {
    check(pick(1971, 2999), pick(1, 12), pick(1, 31), pick(0, 23), pick(0, 59), pick(0, 59));
    check(pick(1965, 3003), pick(-3, 16), pick(-3, 35), pick(-2, 26), pick(-5, 65), pick(-5, 65));
  }
  for (int year = 1968; year < 3003 && !HasFailure(); ++year) {
    check(year, 2, 28, 23, 59, 59);
    check(year, 3, 1, 0, 0, 0);
    check(year, 12, 31, 23, 59, 59);
  }
  EXPECT_EQ(Core::mktime(1950, 1, 1, 0, 0, 0, true), -1 - _timezone) << "refused as -1";
}

TEST_F(Time, SystemTimeGoesThroughUtcAndBackWithoutTheZone) {
  SYSTEMTIME const fields = {2004, 2, 7, 29, 12, 30, 45, 999};
  SYSTEMTIME const expected = {2004, 2, 0, 29, 12, 30, 45, 0};
  auto const t = _time_t::mktime(fields, true), local = _time_t::mktime(fields, false);
  EXPECT_EQ(t, 1078057845);
  EXPECT_EQ(_time_t::mkgmtime(record_of(2004, 2, 29, 12, 30, 45, 0)), t);
  EXPECT_TRUE(same(t.systemtime(), expected));
  EXPECT_TRUE(same(local.localsystemtime(), expected));
  EXPECT_EQ(local - t, _timezone);

  FILETIME const file_time = t.filetime();
  ULARGE_INTEGER number{.u = {file_time.dwLowDateTime, file_time.dwHighDateTime}};
  EXPECT_EQ(number.QuadPart, (1078057845 + 11'644'473'600ull) * 10'000'000);
  EXPECT_EQ(_time_t::mktime(file_time, true), t);
}

TEST_F(Time, VariantIsReadByItsDateAloneAndZeroIsNoTime) {
  EXPECT_EQ(_time_t(12 * 3600).varianttime(), 25569.5);
  EXPECT_EQ(_time_t(_variant_t(25569.5, VT_DATE), true), 12 * 3600);
  EXPECT_EQ(_time_t(_variant_t(25569.5, VT_R8), true), 12 * 3600);
  EXPECT_EQ(_time_t(_variant_t(25569.5, VT_DATE), false), 12 * 3600 + _timezone);
  EXPECT_EQ(_time_t::invalid.varianttime(), 0.0);
  for (double const date : {0.0, 1e300, -1e9, std::nan("")})
    EXPECT_FALSE(_time_t(_variant_t(date, VT_DATE), true).valid()) << date;

  for (int i = 0; i < 20'000; ++i) {
    _time_t const t(any_second());
    ASSERT_EQ(_time_t::mktime(t.varianttime(), true), t);
  }
  auto const summer = _time_t::mktime(2004, 7, 1, 12, 30, 45);
  EXPECT_EQ(_time_t::mktime(summer.localvarianttime(), false), summer);
}

TEST_F(Time, LocalDaysBeginAtMidnightWhateverTheirLength) {
  std::set<__int64> lengths;
  // 11 hours and some: two or three moments in every day, at changing hours.
  for (_time_t t = 1072915200; t < 1072915200 + 2 * 366 * 86400; t = t + 41'234) {
    auto const day = t.trunc2localday(), next = t.nextlocalday(), previous = t.prevlocalday();
    lengths.insert((next - day) / 3600);
    ASSERT_TRUE(day <= t && t < next && previous < day) << t;
    for (auto const each : {day, next, previous})
      ASSERT_TRUE(each.ctime().find(" 00:00:00 ") != std::string::npos) << t;
    ASSERT_EQ(day.localtime().tm_mday, t.localtime().tm_mday) << t;
    ASSERT_EQ(day.localtime().tm_yday, _time_t(next - 1).localtime().tm_yday) << t;
    ASSERT_EQ(previous.nextlocalday(), day) << t;
  }
  EXPECT_TRUE(lengths.size() == 3 || !std::getenv("TZ")) << "no day of 23 or 25 hours";
}

TEST_F(Time, WhatTheRunTimeRefusesLooksLikeNoTime) {
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

TEST_F(Time, ImpossibleConversionsThrowTheFailedCondition) {
  using velt_test::values_of;
  auto const failed = [](std::string const& condition, int line, char const* function) {
    return "Text=Condition not meet;Condition=" + condition +
           ";SourceFile=Time;SourceLine=" + std::to_string(line) +
           ";SourceFunction=_time_t::" + function;
  };
  std::string const variant = "SystemTimeToVariantTime( &SystemTime, &VariantTime ) != 0";
  std::string const file = "SystemTimeToFileTime( &SystemTime, &FileTime ) != 0";
  _time_t const late(beyond_the_run_time), invalid = _time_t::invalid;
  EXPECT_EQ(values_of([] { _time_t::mktime(FILETIME{0, 0xFFFFFFFF}, true); }),
            failed("FileTimeToSystemTime( &FileTime, &SystemTime )", 132, "mktime"));
  EXPECT_EQ(values_of([=] { late.varianttime(); }), failed(variant, 191, "varianttime"));
  for (auto const& t : {late, invalid}) {
    EXPECT_EQ(values_of([=] { t.filetime(); }), failed(file, 277, "filetime"));
    EXPECT_EQ(values_of([=] { t.localvarianttime(); }), failed(variant, 204, "localvarianttime"));
  }
}

namespace {

// The text form by the run time's scanner and formatter, which the library's
// own must not be told from.
__int64 scanned(std::string const& text) {
  tm record{};
  if (sscanf_s(text.c_str(), "%d-%d-%dT%d:%d:%d.000", &record.tm_year, &record.tm_mon,
               &record.tm_mday, &record.tm_hour, &record.tm_min, &record.tm_sec) != 6)
    return -1;
  record.tm_year = static_cast<int>(static_cast<unsigned>(record.tm_year) - 1900);
  record.tm_mon = static_cast<int>(static_cast<unsigned>(record.tm_mon) - 1);
  return _mkgmtime64(&record);
}

std::string formatted(__int64 t) {
  tm record;
  _gmtime64_s(&record, &t);
  char buffer[32] = {};
  strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S.000", &record);
  return buffer;
}

}  // namespace

TEST_F(Time, TextHoldsEverySecondOfTheRunTimesRange) {
  for (int i = 0; i < 100'000; ++i) {
    _time_t const t(any_second());
    auto const text = t.iso8601time();
    ASSERT_EQ(text, formatted(t));
    ASSERT_EQ(_time_t::mktime(text), t) << text;
  }
}

// A good text in which up to three characters were changed, added or lost.
TEST_F(Time, DamagedTextIsReadAsTheRunTimesScannerDoes) {
  std::string const damages[] = {"-", "+", ":", "T", " ", "\t", "\n", "\v", ".", "Z", "\xA0",
                                 "000", "99999999999", {"\0", 1}, "", "", "", "", "", "", ""};
  int refused = 0;
  int const count = 100'000;
  for (int i = 0; i < count; ++i) {
    auto text = formatted(any_second());
    for (auto changes = pick(0, 3); changes > 0; --changes)
      text.replace(random() % text.size(), random() % 2, damages[random() % std::size(damages)]);
    auto const t = _time_t::mktime(text);
    refused += !t.valid();
    ASSERT_EQ(t, scanned(text)) << text;
  }
  // The sample is worth something only if it has plenty of both kinds.
  EXPECT_GT(refused, count / 10);
  EXPECT_LT(refused, count * 9 / 10);
}
