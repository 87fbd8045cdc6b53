#include "velt/text/GeneralNumberInternal.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

// The longest text is "-1.234567e+123".
constexpr std::size_t text_limit = 16;

constexpr int digit_count = 7;
constexpr std::uint32_t too_many_digits = 10'000'000;

// d.dddddd times 10 to the exponent. Its first digit is 0 only for zero.
struct decimal {
  std::uint32_t digits;
  int exponent;
};

// mantissa times 2 to the exponent.
struct binary {
  std::uint64_t mantissa;
  int exponent;
};

__extension__ typedef unsigned __int128 wide_integer;

template <std::size_t count>
constexpr auto powers_of(std::uint64_t base) {
  std::array<std::uint64_t, count> powers = {1};
  for (std::size_t n = 1; n < count; ++n) powers[n] = powers[n - 1] * base;
  return powers;
}

// As many as 64 bits hold.
constexpr auto powers_of_5 = powers_of<28>(5);
constexpr auto powers_of_10 = powers_of<20>(10);

binary parts_of(double normal) {
  constexpr int bits = 52;
  constexpr auto first_bit = std::uint64_t(1) << bits;
  auto const pattern = std::bit_cast<std::uint64_t>(normal);
  return {(pattern & (first_bit - 1)) | first_bit, static_cast<int>(pattern >> bits) - 1023 - bits};
}

// The number times 10 to the power of 6 less the exponent, rounded to an integer,
// ties upwards.
wide_integer scaled(binary number, int exponent) {
  int const scale = digit_count - 1 - exponent;
  if (scale >= 0) {
    // 10^scale is 5^scale, with its powers of 2 in the shift.
    auto const product = wide_integer(number.mantissa) * powers_of_5[static_cast<unsigned>(scale)];
    int const shift = -(number.exponent + scale);
    return (product + (wide_integer(1) << (shift - 1))) >> shift;
  }
  // Ten million or more: a fraction cannot change the rounding.
  auto const whole = number.exponent < 0 ? wide_integer(number.mantissa >> -number.exponent)
                                         : wide_integer(number.mantissa) << number.exponent;
  auto const unit = powers_of_10[static_cast<unsigned>(-scale)];
  return (whole + unit / 2) / unit;
}

// The values between which scaled() is exact, and beyond which there are no ties:
// half of an odd number of 7 digits times a power of ten is a double only from
// 1e-4 to 4e19.
constexpr double least_exact = 1e-20, beyond_exact = 1e25;

decimal rounded_exactly(double magnitude) {
  binary const number = parts_of(magnitude);
  // The logarithm to the base 2, times that of 2 to the base 10: the exponent, or
  // one less.
  int exponent = ((number.exponent + 52) * 78913) >> 18;
  for (;; ++exponent)
    if (auto const digits = scaled(number, exponent); digits < too_many_digits)
      return {static_cast<std::uint32_t>(digits), exponent};
}

decimal rounded_by_library(double magnitude) {
  char text[text_limit];
  auto const end = std::to_chars(text, text + sizeof text, magnitude,
                                 std::chars_format::scientific, digit_count - 1)
                       .ptr;
  decimal result{};
  text[1] = text[0];  // over the point
  auto const mark = text + 1 + digit_count;
  std::from_chars(text + 1, mark, result.digits);
  std::from_chars(mark + 2, end, result.exponent);
  if (mark[1] == '-') result.exponent = -result.exponent;
  return result;
}

decimal rounded(double magnitude) {
  bool const exact = magnitude >= least_exact && magnitude < beyond_exact;
  return exact ? rounded_exactly(magnitude) : rounded_by_library(magnitude);
}

// The significant digits: without trailing zeros, but at least one.
class digit_text {
public:
  explicit digit_text(std::uint32_t digits) {
    for (int place = digit_count; place > 0; digits /= 10)
      text[--place] = static_cast<char>('0' + digits % 10);
    while (count > 1 && text[count - 1] == '0') --count;
  }

  // With the point behind the first `whole` digits.
  char* append_to(char* out, int whole) const {
    out = std::copy_n(text, whole, out);
    *out++ = *std::localeconv()->decimal_point;
    return whole < count ? std::copy(text + whole, text + count, out) : out;
  }

private:
  char text[digit_count];
  int count = digit_count;
};

char* append(char* out, std::string_view text) { return std::copy(text.begin(), text.end(), out); }

char* append_fixed(char* out, decimal number) {
  if (number.exponent < 0) *out++ = '0';
  return digit_text(number.digits).append_to(out, number.exponent + 1);
}

char* append_scientific(char* out, decimal number) {
  out = digit_text(number.digits).append_to(out, 1);
  *out++ = 'e';
  *out++ = number.exponent < 0 ? '-' : '+';
  int const exponent = std::abs(number.exponent);
  for (int unit = 100; unit != 0; unit /= 10)
    *out++ = static_cast<char>('0' + exponent / unit % 10);
  return out;
}

char* append_finite(char* out, double magnitude) {
  auto const number = rounded(magnitude);
  bool const fixed = number.exponent >= -1 && number.exponent < digit_count;
  return fixed ? append_fixed(out, number) : append_scientific(out, number);
}

}  // namespace

namespace velt::detail {

std::string general_text(double value) {
  bool const negative = std::signbit(value);
  if (std::isnan(value)) return negative ? "-1.#IND" : "1.#QNAN";
  char buffer[text_limit];
  char* out = buffer;
  if (negative) *out++ = '-';
  out = std::isinf(value) ? append(out, "1.#INF") : append_finite(out, std::fabs(value));
  return {buffer, out};
}

}  // namespace velt::detail
