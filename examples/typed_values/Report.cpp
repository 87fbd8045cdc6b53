#include "Report.h"

#include <windows.h>

#include <comutil.h>

#include <iterator>

#include "Terminal.h"
#include "velt/text/Encoding.h"
#include "velt/text/Numbers.h"

namespace {

template <class Result>
std::wstring shown(Result const& result) {
  return _value_t(result).as_wstring();
}
template <>
std::wstring shown(_time_t const& result) {
  return as_wstring(result.iso8601time());
}

struct accessor {
  wchar_t const* name;
  std::wstring (*read)(_value_t const& value);
};

// In two columns, the numbers on the left and the wider texts on the right.
constexpr accessor accessors[] = {
    {L"as_int", [](_value_t const& value) { return shown(value.as_int()); }},
    {L"as_ulong", [](_value_t const& value) { return shown(value.as_ulong()); }},
    {L"as_int64", [](_value_t const& value) { return shown(value.as_int64()); }},
    {L"as_double", [](_value_t const& value) { return shown(value.as_double()); }},
    {L"as_bool", [](_value_t const& value) { return shown(value.as_bool()); }},
    {L"as_string", [](_value_t const& value) { return shown(value.as_string()); }},
    {L"as_wstring", [](_value_t const& value) { return shown(value.as_wstring()); }},
    {L"as_bstr", [](_value_t const& value) { return shown(value.as_bstr()); }},
    {L"as_time", [](_value_t const& value) { return shown(value.as_time()); }},
};
constexpr int accessor_count = int(std::size(accessors));
constexpr int rows = (accessor_count + 1) / 2;

constexpr int name_width = 12;
constexpr int left_width = 22;
constexpr int right_width = report_width - 2 - name_width - left_width - name_width;

std::wstring first_line(std::string const& text) {
  return as_wstring(text.substr(0, text.find('\n')));
}

std::wstring reading(accessor const& by, _value_t const& value) {
  try {
    return by.read(value);
  } catch (EGeneric const& refusal) {
    return first_line(refusal.what());
  }
}

std::wstring element_type_name(_value_t const& value) {
#define NAME_IF_HELD(T, TAG) \
  if (value.type() == typeid(T)) return L"" #T;
  VELT_ELEMENT_TYPES(NAME_IF_HELD)
#undef NAME_IF_HELD
  return L"nothing";
}

std::wstring held_type(_value_t const& value) {
  auto const element = element_type_name(value);
  return value.container() ? ui64tow(value.size()) + L" × " + element : element;
}

std::wstring row(int left, _value_t const& value) {
  auto const& first = accessors[left];
  auto line = L"  " + padded(first.name, name_width) + padded(reading(first, value), left_width);
  if (int const right = left + rows; right < accessor_count) {
    auto const& second = accessors[right];
    line += padded(second.name, name_width) + clipped(reading(second, value), right_width);
  }
  return line.substr(0, line.find_last_not_of(L' ') + 1) + L'\n';
}

}  // namespace

std::wstring report(setting const& item) {
  auto text = heading(item.name, held_type(item.value)) + L'\n';
  for (int left = 0; left < rows; ++left) text += row(left, item.value);
  return text;
}
