#include "velt/time/Time.h"

#include <windows.h>

#include <comutil.h>

#include <cstring>
#include <ctime>

#include "velt/exceptions/Condition.h"

namespace {

char const invalid_text[] = "<invalid time>";

// As people count: the full year, months from 1.
struct fields {
  int year, month, day, hour, minute, second;
};

fields fields_of(_SYSTEMTIME const& record) {
  return {record.wYear, record.wMonth,  record.wDay,
          record.wHour, record.wMinute, record.wSecond};
}

// Wraps, since the years of a damaged text can leave the range of int.
int minus(int a, unsigned int b) { return static_cast<int>(static_cast<unsigned int>(a) - b); }

tm record_of(fields const& f, int daylight_saving) {
  tm record{};
  record.tm_year = minus(f.year, 1900);
  record.tm_mon = minus(f.month, 1);
  record.tm_mday = f.day;
  record.tm_hour = f.hour;
  record.tm_min = f.minute;
  record.tm_sec = f.second;
  record.tm_isdst = daylight_saving;
  return record;
}

// Run times differ before 1970: one gives -1 there, another a smaller number for the hours
// that are still 1970 in some zone.
__int64 moment(__time64_t counted) { return counted < 0 ? -1 : counted; }

// Seconds by which UTC runs ahead of local standard time.
long standard_offset() {
  static bool const zone_is_read = (_tzset(), true);
  static_cast<void>(zone_is_read);
  return _timezone;
}

// Read as standard time of the zone, less the zone's offset.
__int64 from_utc_by_zone(fields const& f) {
  tm record = record_of(f, 0);
  long const offset = standard_offset();
  return moment(_mktime64(&record)) - offset;
}

__int64 from_utc(fields const& f) {
  tm record = record_of(f, 0);
  return moment(_mkgmtime64(&record));
}

__int64 from_local(fields const& f) {
  tm record = record_of(f, -1);
  return moment(_mktime64(&record));
}

// The run time takes records by pointers to mutable ones.
tm* writable(tm const& record) { return const_cast<tm*>(&record); }

tm broken_down(errno_t (*convert)(tm*, __time64_t const*), __time64_t t) {
  tm record;
  if (t < 0 || convert(&record, &t) != 0) std::memset(&record, 0xFF, sizeof record);
  return record;
}

_SYSTEMTIME system_time_of(tm const& record) {
  auto const word = [](int value) { return static_cast<WORD>(value); };
  return {.wYear = word(record.tm_year + 1900),
          .wMonth = word(record.tm_mon + 1),
          .wDayOfWeek = 0,
          .wDay = word(record.tm_mday),
          .wHour = word(record.tm_hour),
          .wMinute = word(record.tm_min),
          .wSecond = word(record.tm_sec),
          .wMilliseconds = 0};
}

double variant_of(_SYSTEMTIME record, int line, char const* function) {
  double result = 0;
  if (!SystemTimeToVariantTime(&record, &result))
    velt::detail::throw_condition("SystemTimeToVariantTime( &SystemTime, &VariantTime ) != 0",
                                  "Time", line, function);
  return result;
}

__int64 moment_of_day(tm day, int hour, int minute, int second) {
  day.tm_hour = hour;
  day.tm_min = minute;
  day.tm_sec = second;
  day.tm_wday = 0;
  day.tm_isdst = -1;
  return moment(_mktime64(&day));
}

bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Reads as "%d" does. A number too large for int wraps.
bool read_number(char const*& text, int& number) {
  while (is_space(*text)) ++text;
  bool const negative = *text == '-';
  if (negative || *text == '+') ++text;
  if (!is_digit(*text)) return false;
  unsigned int value = 0;
  for (; is_digit(*text); ++text) value = value * 10 + static_cast<unsigned int>(*text - '0');
  number = static_cast<int>(negative ? 0 - value : value);
  return true;
}

// Reads as "%d-%d-%dT%d:%d:%d" does, without the cost of interpreting a format. True
// if all six numbers are there.
bool read_fields(char const* text, fields& f) {
  auto const literal = [&text](char c) { return *text == c && (++text, true); };
  return read_number(text, f.year) && literal('-') && read_number(text, f.month) &&
         literal('-') && read_number(text, f.day) && literal('T') &&
         read_number(text, f.hour) && literal(':') && read_number(text, f.minute) &&
         literal(':') && read_number(text, f.second);
}

void write_digits(char* place, int count, int number) {
  for (; count > 0; number /= 10) place[--count] = static_cast<char>('0' + number % 10);
}

}  // namespace

constinit const _time_t _time_t::invalid(-1);

_time_t::_time_t(tm const& record) : seconds(moment(_mktime64(writable(record)))) {}
_time_t::_time_t(tm const* record) : _time_t(*record) {}
_time_t::_time_t(_variant_t const& date, bool utc) : _time_t(mktime(date.date, utc)) {}

_time_t _time_t::time() { return _time64(nullptr); }

_time_t _time_t::mkgmtime(tm const& record) {
  return moment(_mkgmtime64(writable(record)));
}
_time_t _time_t::mkgmtime(tm const* record) { return mkgmtime(*record); }

_time_t _time_t::mktime(int year, int month, int day, int hour, int minute, int second) {
  return mktime(year, month, day, hour, minute, second, false);
}

_time_t _time_t::mktime(int year, int month, int day, int hour, int minute, int second,
                        bool utc) {
  fields const f{year, month, day, hour, minute, second};
  return utc ? from_utc_by_zone(f) : from_local(f);
}

_time_t _time_t::mktime(_SYSTEMTIME const& record, bool utc) {
  fields const f = fields_of(record);
  return mktime(f.year, f.month, f.day, f.hour, f.minute, f.second, utc);
}

_time_t _time_t::mktime(double variant, bool utc) {
  // Zero means no time. NaN is rejected here because not every platform does.
  if (!(variant < 0.0 || variant > 0.0)) return invalid;
  SYSTEMTIME record;
  if (VariantTimeToSystemTime(variant, &record) != 1) return invalid;
  return mktime(record, utc);
}

_time_t _time_t::mktime(_FILETIME const& filetime, bool utc) {
  SYSTEMTIME record;
  if (!FileTimeToSystemTime(&filetime, &record))
    velt::detail::throw_condition("FileTimeToSystemTime( &FileTime, &SystemTime )", "Time", 132,
                                  "_time_t::mktime");
  return mktime(record, utc);
}

_time_t _time_t::mktime(std::string const& text) {
  fields f;
  return read_fields(text.c_str(), f) ? _time_t(from_utc(f)) : invalid;
}

tm _time_t::gmtime() const { return broken_down(_gmtime64_s, seconds); }
tm _time_t::localtime() const { return broken_down(_localtime64_s, seconds); }

_SYSTEMTIME _time_t::systemtime() const { return system_time_of(gmtime()); }
_SYSTEMTIME _time_t::localsystemtime() const { return system_time_of(localtime()); }

_FILETIME _time_t::filetime() const {
  SYSTEMTIME const record = systemtime();
  FILETIME result;
  if (!SystemTimeToFileTime(&record, &result))
    velt::detail::throw_condition("SystemTimeToFileTime( &SystemTime, &FileTime ) != 0", "Time",
                                  277, "_time_t::filetime");
  return result;
}

double _time_t::varianttime() const {
  if (!valid()) return 0.0;
  return variant_of(systemtime(), 191, "_time_t::varianttime");
}

double _time_t::localvarianttime() const {
  return variant_of(localsystemtime(), 204, "_time_t::localvarianttime");
}

std::string _time_t::ctime() const {
  // In two steps: some run times' _ctime64_s refuses the epoch itself, and
  // crashes beyond the year 3000.
  tm const record = localtime();
  char buffer[64];
  if (record.tm_mday < 1 || asctime_s(buffer, sizeof buffer, &record) != 0) return invalid_text;
  return std::string(buffer, std::strlen(buffer) - 1);
}

std::string _time_t::iso8601time() const {
  tm const record = gmtime();
  if (record.tm_mday < 1) return invalid_text;
  std::string text("0000-00-00T00:00:00.000");
  write_digits(&text[0], 4, record.tm_year + 1900);
  write_digits(&text[5], 2, record.tm_mon + 1);
  write_digits(&text[8], 2, record.tm_mday);
  write_digits(&text[11], 2, record.tm_hour);
  write_digits(&text[14], 2, record.tm_min);
  write_digits(&text[17], 2, record.tm_sec);
  return text;
}

_time_t _time_t::trunc2localday() const { return moment_of_day(localtime(), 0, 0, 0); }
_time_t _time_t::nextlocalday() const { return moment_of_day(localtime(), 23, 59, 59) + 1; }
_time_t _time_t::prevlocalday() const { return _time_t(trunc2localday() - 1).trunc2localday(); }
