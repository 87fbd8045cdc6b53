// _time_t: calendar time as one count of seconds, with conversions to the other forms
// of time: broken-down tm, _SYSTEMTIME, _FILETIME, the double of OLE automation, and
// two texts. To measure durations, see Stopwatches.h; for fractions of a second use
// std::chrono.
#pragma once

#include <concepts>
#include <string>

#include "velt/base/Export.h"

struct tm;
struct _SYSTEMTIME;
struct _FILETIME;
class _variant_t;

// Seconds since 1970-01-01 00:00:00 UTC, signed, 64 bits. Every conversion drops
// milliseconds. The value -1 is `invalid`, so the second before the epoch cannot be
// expressed. The run time converts the years 1970 to 3000; the count itself holds
// any number.
//
// A plain value: trivially copyable, without a lock. Times compare and subtract as
// the numbers that they convert to. A parameter `utc` tells the zone of the fields:
// true for UTC, false for local time, for which the run time works out daylight
// saving. It has no default, since neither is the obvious one.
class VELT_API _time_t {
public:
  static const _time_t invalid;

  constexpr _time_t(__int64 t = 0) noexcept : seconds(t) {}
  constexpr _time_t(int t) noexcept : seconds(t) {}

  // Local time, by the record's own tm_isdst; `invalid` if the run time refuses the
  // record. The run time normalises the caller's record in place, although it is
  // const here: do not pass one in constant storage.
  _time_t(tm const& record);
  _time_t(tm const* record);

  // The variant's date, whatever its tag says; as mktime(double, bool).
  _time_t(_variant_t const& date, bool utc);

  constexpr _time_t(_time_t const&) noexcept = default;
  constexpr _time_t& operator=(_time_t const&) noexcept = default;
  constexpr _time_t& operator=(__int64 const& t) noexcept {
    seconds = t;
    return *this;
  }
  // Exactly int: keeps a literal 0 from being taken for a null record as well.
  constexpr _time_t& operator=(std::same_as<int> auto t) noexcept {
    seconds = t;
    return *this;
  }
  _time_t& operator=(tm const& record) { return *this = _time_t(record); }
  _time_t& operator=(tm const* record) { return *this = _time_t(record); }

  constexpr bool valid() const noexcept { return seconds != -1; }
  constexpr operator __int64() const noexcept { return seconds; }

  // Now.
  static _time_t time();

  // From UTC fields; normalises the caller's record as the constructors do.
  static _time_t mkgmtime(tm const& record);
  static _time_t mkgmtime(tm const* record);

  // From local fields: the full year, months from 1. Fields beyond their range carry
  // over: month 13 is January of the next year. `invalid` if the run time refuses
  // them.
  static _time_t mktime(int year, int month, int day, int hour, int minute, int second);

  // From the platform's forms. With `utc` true, fields that the run time refuses, such
  // as years before 1970, give -1 less the zone's offset from UTC, which is `invalid`
  // only where that is 0.
  static _time_t mktime(_SYSTEMTIME const& fields, bool utc);
  // 0.0 and dates that the platform refuses are `invalid`.
  static _time_t mktime(double variant, bool utc);
  // Throws an EGeneric ("Condition not meet") for an impossible file time.
  static _time_t mktime(_FILETIME const& filetime, bool utc);

  // From text as iso8601time() writes it, always UTC: six whole numbers
  // year-month-dayThour:minute:second. White space and a sign may precede each of
  // them, they may exceed their ranges, and text behind the seconds is ignored. Any
  // other text is `invalid`.
  static _time_t mktime(std::string const& text);

  // Broken-down time, UTC and local. Every field is -1 for `invalid`, and for times
  // that the run time refuses.
  tm gmtime() const;
  tm localtime() const;

  // The same, with wDayOfWeek and wMilliseconds always 0. For `invalid`, and for times
  // that the run time refuses, wMonth is 0 and wDay to wSecond are 65535, which the
  // platform's conversions refuse.
  _SYSTEMTIME systemtime() const;
  _SYSTEMTIME localsystemtime() const;

  // UTC. Throws an EGeneric ("Condition not meet") for `invalid`, and for times that
  // the run time refuses.
  _FILETIME filetime() const;

  // The date of OLE automation: days since 1899-12-30. varianttime() is UTC and gives
  // 0.0 for `invalid`; localvarianttime() throws for it. Both throw an EGeneric
  // ("Condition not meet") for times that the run time refuses.
  double varianttime() const;
  double localvarianttime() const;

  // Local time as "Sun Feb 29 12:30:45 2004", always in English; "<invalid time>" for
  // `invalid`, and for times that the run time refuses.
  std::string ctime() const;

  // UTC as "2004-02-29T12:30:45.000": the fraction is always 0, and no zone is named.
  // "<invalid time>" as for ctime(), which mktime() reads as `invalid`.
  std::string iso8601time() const;

  // The first second of the local day, of the next one and of the one before, whether
  // the day has 23, 24 or 25 hours. For `invalid`, trunc2localday() and prevlocalday()
  // give `invalid`; nextlocalday() adds its one second and gives 0.
  _time_t trunc2localday() const;
  _time_t nextlocalday() const;
  _time_t prevlocalday() const;

protected:
  // The core of the family.
  static _time_t mktime(int year, int month, int day, int hour, int minute, int second, bool utc);

  // A hook for derived classes; does nothing.
  void update_time() {}

private:
  __int64 seconds;
};
