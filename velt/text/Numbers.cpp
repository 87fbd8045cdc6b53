#include "velt/text/Numbers.h"

#include <stdlib.h>

#include <charconv>
#include <concepts>
#include <type_traits>

namespace {

template <class Char, std::integral Number>
std::basic_string<Char> digits_of(Number value, int radix) {
  if constexpr (std::same_as<Char, char>)
    if (radix == 10) return std::to_string(value);  // writes in place
  if (radix < 2 || radix > 36) return {};
  char digits[64];  // as many as the longest number has in radix 2
  auto const limit = digits + sizeof digits;
  if (radix == 10) return {digits, std::to_chars(digits, limit, value).ptr};
  auto const bits = static_cast<std::make_unsigned_t<Number>>(value);
  return {digits, std::to_chars(digits, limit, bits, radix).ptr};
}

}  // namespace

std::string itoa(int value, int radix) { return digits_of<char>(value, radix); }
std::string ltoa(long value, int radix) { return digits_of<char>(value, radix); }
std::string i64toa(__int64 value, int radix) { return digits_of<char>(value, radix); }
std::string ui64toa(unsigned __int64 value, int radix) { return digits_of<char>(value, radix); }

std::wstring itow(int value, int radix) { return digits_of<wchar_t>(value, radix); }
std::wstring ltow(long value, int radix) { return digits_of<wchar_t>(value, radix); }
std::wstring i64tow(__int64 value, int radix) { return digits_of<wchar_t>(value, radix); }
std::wstring ui64tow(unsigned __int64 value, int radix) {
  return digits_of<wchar_t>(value, radix);
}

int atoi(std::string const& text) { return ::atoi(text.c_str()); }
long atol(std::string const& text) { return ::atol(text.c_str()); }
int wtoi(std::wstring const& text) { return ::_wtoi(text.c_str()); }
