// _time_t: calendar time as a count of seconds, with conversions to and from the forms
// that the platform and people use: broken-down tm, _SYSTEMTIME, _FILETIME, the double
// of OLE automation, and two texts. To measure durations, see Stopwatches.h; for
// fractions of a second, use std::chrono.
#pragma once

#include <concepts>
#include <cstddef>
#include <string>
#include <utility>

#include "velt/base/Export.h"

struct tm;
struct _SYSTEMTIME;
struct _FILETIME;
class _variant_t;

// Seconds since 1970-01-01 00:00:00 UTC, signed, 64 bits. Every conversion drops
// milliseconds. The value -1 is `invalid`, so the second before the epoch cannot be
// represented. The run time converts times from 1970 to the end of the year 3000, and
// refuses all others; the count itself holds any number.
//
// A plain value: trivially copyable, without a lock. Times compare and subtract as the
// numbers that they convert to. A parameter `utc` tells what the fields are: true means
// UTC; false means local time, for which the run time works out daylight saving. It has
// no default, since neither is the obvious one.
class VELT_API _time_t {
public:
  // No time: what failed conversions give.
  static const _time_t invalid;

  // A count of seconds since the epoch.
  constexpr _time_t(__int64 t = 0) noexcept : seconds(t) {}
  constexpr _time_t(int t) noexcept : seconds(t) {}
  // A template, so that a literal 0L or 0u is not ambiguous with a null record.
  constexpr _time_t(std::integral auto t) noexcept : seconds(static_cast<__int64>(t)) {}
  _time_t(std::nullptr_t no_record) = delete;

  // Local time, by the record's own tm_isdst; `invalid` if the run time refuses it. The
  // run time normalises the caller's record in place, although it is const here: do not
  // pass a record in constant storage.
  _time_t(tm const& record);
  _time_t(tm const* record);

  // The date in the variant, whatever its tag says. Converts like mktime(double, bool).
  _time_t(_variant_t const& date, bool utc);

  constexpr _time_t(_time_t const&) noexcept = default;
  constexpr _time_t& operator=(_time_t const&) noexcept = default;
  // As the constructors do.
  constexpr _time_t& operator=(__int64 const& t) noexcept {
    seconds = t;
    return *this;
  }
  constexpr _time_t& operator=(std::integral auto t) noexcept {
    seconds = static_cast<__int64>(t);
    return *this;
  }
  _time_t& operator=(std::nullptr_t no_record) = delete;
  // As the constructors do.
  _time_t& operator=(tm const& record) { return *this = _time_t(record); }
  _time_t& operator=(tm const* record) { return *this = _time_t(record); }

  // Is it another time than `invalid`?
  constexpr bool valid() const noexcept { return seconds != -1; }
  // The count of seconds.
  constexpr operator __int64() const noexcept { return seconds; }

  // Move the time by seconds, without a test for `invalid`.
  constexpr _time_t& operator+=(__int64 by) noexcept {
    seconds += by;
    return *this;
  }
  constexpr _time_t& operator-=(__int64 by) noexcept { return *this += -by; }
  constexpr _time_t& operator++() noexcept { return *this += 1; }
  constexpr _time_t& operator--() noexcept { return *this -= 1; }
  constexpr _time_t operator++(int) noexcept { return std::exchange(*this, seconds + 1); }
  constexpr _time_t operator--(int) noexcept { return std::exchange(*this, seconds - 1); }

  // The current time.
  static _time_t time();

  // From UTC fields. Normalises the caller's record, as the constructors do.
  static _time_t mkgmtime(tm const& record);
  static _time_t mkgmtime(tm const* record);

  // From local fields: the full year, and months from 1. Fields beyond their range carry
  // over: month 13 is January of the next year. `invalid` if the run time refuses the
  // result.
  static _time_t mktime(int year, int month, int day, int hour, int minute, int second);

  // From the platform's forms. If the run time refuses the fields, for instance years
  // before 1970, the result with `utc` true is -1 less the zone's distance from UTC: away
  // from Greenwich this is not `invalid`.
  static _time_t mktime(_SYSTEMTIME const& fields, bool utc);
  // `invalid` for 0.0 and for dates that the platform refuses.
  static _time_t mktime(double variant, bool utc);
  // Throws an EGeneric ("Condition not meet") if the value is not a file time.
  static _time_t mktime(_FILETIME const& filetime, bool utc);

  // From text in the form that iso8601time() writes, always UTC: six whole numbers
  // year-month-dayThour:minute:second. White space and a sign may precede each number.
  // Ignores all text after the seconds, and accepts fields beyond their range. Any other
  // text gives `invalid`.
  static _time_t mktime(std::string const& text);

  // Broken-down time, UTC and local. Every field is -1 for `invalid` and for times that
  // the run time refuses.
  tm gmtime() const;
  tm localtime() const;

  // The same, with wDayOfWeek and wMilliseconds always 0. For `invalid` and for times that
  // the run time refuses, wMonth is 0 and wDay to wSecond are 65535; the platform's own
  // conversions refuse such a record.
  _SYSTEMTIME systemtime() const;
  _SYSTEMTIME localsystemtime() const;

  // UTC. Throws an EGeneric ("Condition not meet") for `invalid` and for times that the
  // run time refuses.
  _FILETIME filetime() const;

  // The date of OLE automation: days since 1899-12-30. varianttime() is UTC and returns
  // 0.0 for `invalid`; localvarianttime() throws for it. Both throw an EGeneric
  // ("Condition not meet") for times that the run time refuses.
  double varianttime() const;
  double localvarianttime() const;

  // Local time as "Sun Feb 29 12:30:45 2004", in English on every system;
  // "<invalid time>" for `invalid` and for times that the run time refuses.
  std::string ctime() const;

  // UTC as "2004-02-29T12:30:45.000", with this fraction and without a mark of the zone.
  // "<invalid time>" where ctime() gives it; mktime() reads that back as `invalid`.
  std::string iso8601time() const;

  // The first second of the local day, of the next day, and of the day before, whether
  // the day has 23, 24 or 25 hours. Where summer time begins at midnight, trunc2localday()
  // and prevlocalday() give 23:00 of the day before. trunc2localday() and prevlocalday() of
  // `invalid`, and before the first local midnight of 1970, are `invalid`; nextlocalday()
  // is 0 for `invalid`, and west of Greenwich before that midnight.
  _time_t trunc2localday() const;
  _time_t nextlocalday() const;
  _time_t prevlocalday() const;

protected:
  // The common core of these conversions.
  static _time_t mktime(int year, int month, int day, int hour, int minute, int second, bool utc);

  // A hook for derived classes; does nothing.
  void update_time() {}

private:
  __int64 seconds;
};
