#include "velt/text/GeneralNumberInternal.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <random>
#include <vector>

namespace {

using velt::detail::general_text;
using limits = std::numeric_limits<double>;

void crop_zeros(std::string& digits) { digits.resize(digits.find_last_not_of('0') + 1); }

// The text of a finite value by another road: printf rounds, once to learn the
// exponent and once for the digits.
std::string expected_text(double value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.6e", value);
  std::string text = buffer;
  auto const mark = text.find('e');
  int const exponent = std::atoi(text.c_str() + mark + 1);
  if (exponent >= -1 && exponent <= 6) {
    std::snprintf(buffer, sizeof buffer, "%#.*f", 6 - exponent, value);
    text = buffer;
    crop_zeros(text);
    return text;
  }
  text.resize(mark);
  crop_zeros(text);
  std::snprintf(buffer, sizeof buffer, "e%c%03d", exponent < 0 ? '-' : '+', std::abs(exponent));
  return text + buffer;
}

// Values around every power of ten, where rounding moves the exponent, and any
// bit pattern.
std::vector<double> samples() {
  std::vector<double> result;
  std::mt19937_64 random(7);
  for (int exponent = -310; exponent <= 308; ++exponent)
    for (double const factor : {1.0, 0.99999994, 0.99999995, 0.999999951, 1.0000005, 5.0, 1.234567})
      result.push_back(factor * std::pow(10.0, exponent));
  for (int n = 0; n < 20'000; ++n) {
    result.push_back(std::bit_cast<double>(random()));
    auto const whole = static_cast<double>(static_cast<int>(random()));
    result.push_back(whole / std::pow(10.0, static_cast<int>(random() % 12)));
  }
  std::erase_if(result, [](double value) { return !std::isfinite(value); });
  return result;
}

}  // namespace

TEST(GeneralNumber, HasTheFormOfThePlatform) {
  auto const nan = limits::quiet_NaN();
  struct {
    double value;
    char const* text;
  } const rows[] = {
      {0.0, "0."},
      {-0.0, "-0."},
      {100.0, "100."},
      {0.0999999, "9.99999e-002"},
      {0.099999999, "0.1"},
      {9999999.4, "9999999."},
      {9999999.6, "1.e+007"},
      {-12345678.0, "-1.234568e+007"},
      {-limits::denorm_min(), "-4.940656e-324"},
      {limits::infinity(), "1.#INF"},
      {-limits::infinity(), "-1.#INF"},
      {nan, "1.#QNAN"},
      {std::copysign(nan, -1.0), "-1.#IND"},
  };
  for (auto const& row : rows) EXPECT_EQ(general_text(row.value), row.text);
}

TEST(GeneralNumber, AgreesWithPrintfAndReadsBackToSevenDigits) {
  for (double const value : samples()) {
    auto const text = general_text(value);
    ASSERT_EQ(text, expected_text(value)) << value;
    ASSERT_LE(text.size(), velt::detail::general_text_limit);
    char again[32], digits[32];
    std::snprintf(again, sizeof again, "%.6e", std::strtod(text.c_str(), nullptr));
    std::snprintf(digits, sizeof digits, "%.6e", value);
    if (std::fabs(value) >= limits::min()) {
      ASSERT_STREQ(again, digits);
    }
  }
}
