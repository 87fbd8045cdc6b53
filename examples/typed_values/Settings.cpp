#include "Settings.h"

#include <windows.h>

#include <comutil.h>

#include <charconv>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "velt/exceptions/ExceptionFamily.h"
#include "velt/text/Case.h"
#include "velt/text/Encoding.h"
#include "velt/text/Trim.h"
#include "velt/time/Time.h"

namespace {

std::wstring trimmed(std::wstring const& text) { return trim(text, L" \t\r"); }

EGeneric malformed(std::wstring const& reason) { return EGeneric({"Reason", reason}); }

// The text in the ANSI code page; empty if that lacks one of its characters, even if it
// has a similar one.
std::string narrowed(std::wstring const& text) {
  auto const narrow = as_string(text);
  return as_wstring(narrow) == text ? narrow : std::string();
}

_value_t read_bool(std::wstring const& text) {
  auto const word = strlower(text);
  if (word == L"true") return true;
  if (word == L"false") return false;
  return _value_t();
}

template <class Number>
_value_t read_number(std::wstring const& text) {
  auto const digits = narrowed(text);
  auto const end = digits.data() + digits.size();
  Number number{};
  auto const read = std::from_chars(digits.data(), end, number);
  if (read.ec != std::errc() || read.ptr != end) return _value_t();
  if constexpr (std::is_floating_point_v<Number>)
    if (!std::isfinite(number)) return _value_t();
  return number;
}

// The library accepts other forms too, and carries over fields beyond their range. A time
// that prints as it was written has the right form and exists in the calendar.
_value_t read_utc_time(std::wstring const& text) {
  auto const written = narrowed(text);
  auto const time = _time_t::mktime(written);
  return time.iso8601time() == written + ".000" ? _value_t(time) : _value_t();
}

// The hour that a zone skips when daylight saving begins comes back as another hour.
_value_t read_local_time(std::wstring const& text) {
  auto const utc = read_utc_time(text);
  if (utc.empty()) return utc;
  tm fields = utc.as_time().gmtime();
  fields.tm_isdst = -1;  // the run time decides
  _time_t const time(fields);
  return _time_t::mkgmtime(time.localtime()) == utc.as_time() ? _value_t(time) : _value_t();
}

_value_t read_text(std::wstring const& text) {
  auto const narrow = narrowed(text);
  return narrow.empty() == text.empty() ? _value_t(narrow) : _value_t();
}

_value_t read_wide(std::wstring const& text) { return text; }
_value_t read_bstr(std::wstring const& text) { return _bstr_t(text.c_str()); }

constexpr setting_type types[] = {
    {L"bool", L"true or false", read_bool},
    {L"int", L"a whole number from -2147483648 to 2147483647", read_number<int>},
    {L"ulong", L"a whole number from 0 to 4294967295", read_number<unsigned long>},
    {L"int64", L"a whole number of at most 64 bits", read_number<__int64>},
    {L"double", L"a finite number such as -1.5 or 2e9", read_number<double>},
    {L"time", L"a local time such as 2026-02-28T23:59:59", read_local_time},
    {L"utctime", L"a UTC time such as 2026-02-28T23:59:59", read_utc_time},
    {L"text", L"text within the ANSI code page", read_text},
    {L"wide", L"any text", read_wide},
    {L"bstr", L"any text", read_bstr},
};

setting_type const& type_of(std::wstring const& word) {
  for (auto const& type : types)
    if (word == type.word) return type;
  throw malformed(L"unknown type: '" + word + L"'");
}

_value_t read_scalar(setting_type const& type, std::wstring const& text) {
  auto const value = type.read(text);
  if (value.empty()) throw malformed(std::wstring(L"not ") + type.accepts + L": '" + text + L"'");
  return value;
}

_value_t read_list(setting_type const& type, std::wstring const& text) {
  _value_t list;
  if (text.empty()) return list;
  for (std::size_t begin = 0, end; begin <= text.size(); begin = end + 1) {
    end = std::min(text.find(L',', begin), text.size());
    list.push_back(read_scalar(type, trimmed(text.substr(begin, end - begin))));
  }
  return list;
}

_value_t read_value(std::wstring const& type, std::wstring const& text) {
  std::wstring const list = L"list of ";
  if (!type.starts_with(list)) return read_scalar(type_of(type), text);
  return read_list(type_of(trimmed(type.substr(list.size()))), text);
}

// Bytes that are not UTF-8 do not survive the conversion there and back.
std::wstring decoded(std::string const& line) {
  auto const text = as_wstring(line, CP_UTF8);
  if (as_string(text, CP_UTF8) != line || text.find(L'\0') != text.npos)
    throw malformed(L"not UTF-8 text");
  return trimmed(text);
}

void read_line_into(settings_file& result, std::string const& bytes, int number) {
  try {
    auto const line = decoded(bytes);
    if (line.empty() || line.starts_with(L'#')) return;
    result.settings.push_back(read_line(line));
  } catch (EGeneric& error) {
    error.put_value("Line", number);
    result.malformed.push_back(error);
  }
}

std::ifstream opened(std::wstring const& path) {
  if (std::error_code ignored; std::filesystem::is_directory(path, ignored))
    throw ERuntimeException(EISDIR, {"File", path});
  std::ifstream file(std::filesystem::path(path), std::ios::binary);
  if (!file) throw ERuntimeException(errno, {"File", path});
  return file;
}

void skip_byte_order_mark(std::string& line) {
  if (line.starts_with("\xEF\xBB\xBF")) line.erase(0, 3);
}

}  // namespace

std::span<setting_type const> setting_types() { return types; }

setting read_line(std::wstring const& line) {
  auto const colon = line.find(L':');
  if (colon == line.npos) throw malformed(L"no ':' behind the name");
  auto const name = trimmed(line.substr(0, colon));
  if (name.empty()) throw malformed(L"no name");
  auto const equals = line.find(L'=', colon);
  if (equals == line.npos) throw malformed(L"no '=' behind the type");
  auto const type = trimmed(line.substr(colon + 1, equals - colon - 1));
  return {name, read_value(type, trimmed(line.substr(equals + 1)))};
}

settings_file read_settings(std::wstring const& path) {
  auto file = opened(path);
  settings_file result;
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    if (number == 1) skip_byte_order_mark(line);
    read_line_into(result, line, number);
  }
  if (file.bad()) throw ERuntimeException(EIO, {"File", path});
  return result;
}
