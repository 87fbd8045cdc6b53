#include "velt/text/GeneralNumberInternal.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>

namespace {

constexpr int digit_count = 7;

// A finite value rounded to seven digits: d.dddddd times 10 to the exponent.
struct Decimal {
  char digits[digit_count];
  int significant;  // digits without trailing zeros, at least 1
  int exponent;
};

Decimal rounded(double magnitude) {
  char text[velt::detail::general_text_limit];
  auto const end = std::to_chars(text, text + sizeof text, magnitude,
                                 std::chars_format::scientific, digit_count - 1)
                       .ptr;
  Decimal result;
  result.digits[0] = text[0];
  std::copy_n(text + 2, digit_count - 1, result.digits + 1);
  result.significant = digit_count;
  while (result.significant > 1 && result.digits[result.significant - 1] == '0')
    --result.significant;

  auto const exponent = text + digit_count + 2;
  std::from_chars(exponent + 1, end, result.exponent);
  if (*exponent == '-') result.exponent = -result.exponent;
  return result;
}

char* append(char* out, std::string_view text) { return std::copy(text.begin(), text.end(), out); }

// The first `whole` digits, the point, and what is left of the significant ones.
char* append_digits(char* out, Decimal const& number, int whole) {
  out = std::copy_n(number.digits, whole, out);
  *out++ = '.';
  return whole < number.significant
             ? std::copy(number.digits + whole, number.digits + number.significant, out)
             : out;
}

char* append_fixed(char* out, Decimal const& number) {
  if (number.exponent < 0) *out++ = '0';
  return append_digits(out, number, number.exponent + 1);
}

char* append_scientific(char* out, Decimal const& number) {
  out = append_digits(out, number, 1);
  *out++ = 'e';
  *out++ = number.exponent < 0 ? '-' : '+';
  int const exponent = std::abs(number.exponent);
  for (int unit = 100; unit != 0; unit /= 10)
    *out++ = static_cast<char>('0' + exponent / unit % 10);
  return out;
}

}  // namespace

namespace velt::detail {

char* general_text(double value, char* buffer) noexcept {
  bool const negative = std::signbit(value);
  if (std::isnan(value)) return append(buffer, negative ? "-1.#IND" : "1.#QNAN");
  if (negative) *buffer++ = '-';
  if (std::isinf(value)) return append(buffer, "1.#INF");
  auto const number = rounded(std::fabs(value));
  bool const fixed = number.exponent >= -1 && number.exponent < digit_count;
  return fixed ? append_fixed(buffer, number) : append_scientific(buffer, number);
}

std::string general_text(double value) {
  char buffer[general_text_limit];
  return {buffer, general_text(value, buffer)};
}

}  // namespace velt::detail
