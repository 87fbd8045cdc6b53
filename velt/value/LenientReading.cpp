#include <emmintrin.h>

#include <cstdlib>
#include <cstring>

#include "velt/base/TypeName.h"
#include "velt/text/Encoding.h"
#include "velt/text/GeneralNumberInternal.h"
#include "velt/text/Numbers.h"
#include "velt/value/KindsInternal.h"

namespace {

using velt::detail::by_kind;
using velt::detail::is_object;
using velt::detail::own_element;
using velt::detail::read;
using velt::detail::throw_bad_cast;
using velt::detail::unknown_kind;

using object_handle = SmartPtr<const SmartPtrObj>;

// By the processor's rule a number that does not fit, and NaN, give the lowest
// number. A cast would be undefined for them.
int truncated(double value) { return _mm_cvttsd_si32(_mm_set_sd(value)); }
__int64 truncated_64(double value) { return _mm_cvttsd_si64(_mm_set_sd(value)); }

template <class To>
To from_double(double value);
template <>
int from_double(double value) { return truncated(value); }
template <>
unsigned long from_double(double value) {
  return static_cast<unsigned long>(truncated_64(value));
}
// Through 32 bits on purpose, as in as_int.
template <>
__int64 from_double(double value) { return truncated(value); }
template <>
double from_double(double value) { return value; }
template <>
bool from_double(double value) { return truncated(value) != 0; }

template <class To>
To from_text(char const* text);
template <>
int from_text(char const* text) { return ::atoi(text); }
template <>
unsigned long from_text(char const* text) { return std::strtoul(text, nullptr, 10); }
template <>
__int64 from_text(char const* text) { return ::_atoi64(text); }
template <>
double from_text(char const* text) { return ::atof(text); }
template <>
bool from_text(char const* text) { return ::_stricmp(text, "true") == 0 || ::atoi(text) != 0; }

template <class To>
To number_in_text(_value_t_data const& held) {
  if (auto const text = own_element<std::string>(&held)) return from_text<To>(text->c_str());
  return from_text<To>(read<std::string>(held).c_str());
}

// Refused for objects, and for __int64 read as an int, although as_ulong truncates
// it: the asymmetry is part of the rules.
template <class To>
To as_number(_value_t const& value) {
  return by_kind<To>(value, []<class Kind>(_value_t_data const& held) -> To {
    if constexpr (std::is_same_v<Kind, unknown_kind>)
      return read<To>(held);
    else if constexpr (is_object<Kind> ||
                       (std::is_same_v<To, int> && std::is_same_v<Kind, __int64>))
      throw_bad_cast(held.type(), typeid(To));
    else if constexpr (std::is_same_v<Kind, std::string>)
      return number_in_text<To>(held);
    else if constexpr (std::is_same_v<Kind, double>)
      return from_double<To>(read<double>(held));
    else if constexpr (std::is_same_v<Kind, _time_t>)
      return static_cast<To>(static_cast<__int64>(read<_time_t>(held)));
    else
      return static_cast<To>(read<Kind>(held));
  });
}

std::string narrow_text(double value) { return velt::detail::general_text(value); }
std::string narrow_text(_time_t value) { return value.ctime(); }
std::string narrow_text(bool value) { return value ? "true" : "false"; }
std::string narrow_text(object_handle const& value) {
  return value ? value->describe() : "<null>";
}
std::string narrow_text(unsigned long value) { return ui64toa(value, 10); }
std::string narrow_text(__int64 value) { return i64toa(value, 10); }
std::string narrow_text(int value) { return itoa(value, 10); }

template <class Text>
Text text_of(std::string narrow);
template <>
std::string text_of(std::string narrow) { return narrow; }
template <>
std::wstring text_of(std::string narrow) { return as_wstring(narrow, 0); }
template <>
_bstr_t text_of(std::string narrow) { return narrow.c_str(); }

template <class Text>
[[gnu::noinline]] Text as_text(_value_t const& value) {
  return by_kind<Text>(value, []<class Kind>(_value_t_data const& held) -> Text {
    constexpr bool names_unknown_kinds = std::is_same_v<Text, std::string>;
    if constexpr (std::is_same_v<Kind, unknown_kind> && names_unknown_kinds)
      return velt::detail::readable_name(held.type());
    else if constexpr (std::is_same_v<Kind, std::string> || std::is_same_v<Kind, unknown_kind>)
      return read<Text>(held);
    else
      return text_of<Text>(narrow_text(read<Kind>(held)));
  });
}

[[gnu::noinline]] std::string list_of_elements(_value_t const& sequence) {
  std::string list = "{";
  for (unsigned __int64 index = 0; index < sequence.size(); ++index) {
    if (index != 0) list += ',';
    list += sequence[index].as_string();
  }
  return list += '}';
}

}  // namespace

int _value_t::as_int() const { return as_number<int>(*this); }
unsigned long _value_t::as_ulong() const { return as_number<unsigned long>(*this); }
__int64 _value_t::as_int64() const { return as_number<__int64>(*this); }
double _value_t::as_double() const { return as_number<double>(*this); }
bool _value_t::as_bool() const { return as_number<bool>(*this); }

_time_t _value_t::as_time() const {
  return by_kind<_time_t>(*this, []<class Kind>(_value_t_data const& held) -> _time_t {
    if constexpr (std::is_same_v<Kind, double>)
      return _time_t::mktime(read<double>(held), true);
    else if constexpr (std::is_same_v<Kind, __int64>)
      return _time_t(read<int>(held));  // throws: __int64 does not read as int
    else if constexpr (std::is_same_v<Kind, unsigned long> || std::is_same_v<Kind, int>)
      return _time_t(read<int>(held));
    else if constexpr (std::is_same_v<Kind, _time_t> || std::is_same_v<Kind, unknown_kind>)
      return read<_time_t>(held);
    else
      throw_bad_cast(held.type(), typeid(_time_t));
  });
}

std::string _value_t::as_string() const {
  // First, because choosing a rule costs more than writing the digits of an int.
  if (auto const number = own_element<int>(data.get())) return std::to_string(*number);
  return container() ? list_of_elements(*this) : as_text<std::string>(*this);
}

std::wstring _value_t::as_wstring() const { return as_text<std::wstring>(*this); }
_bstr_t _value_t::as_bstr() const { return as_text<_bstr_t>(*this); }
