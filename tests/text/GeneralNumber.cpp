#include "velt/text/GeneralNumberInternal.h"

#include <gtest/gtest.h>

#include <bit>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>

#include "velt/value/Value.h"

namespace {

using velt::detail::general_text;
using limits = std::numeric_limits<double>;

// The run time puts the same digits into other forms, which it reads back alike.
void expect_digits_of_the_run_time(double value) {
  char expected[32];
  ASSERT_EQ(_gcvt_s(expected, sizeof expected, value, 7), 0);
  auto const text = general_text(value);
  ASSERT_EQ(std::bit_cast<__int64>(std::atof(text.c_str())),
            std::bit_cast<__int64>(std::atof(expected)))
      << text << ' ' << expected;
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
      {9999999.5, "1.e+007"},
      {-12345678.0, "-1.234568e+007"},
      {-limits::denorm_min(), "-4.940656e-324"},
      {limits::infinity(), "1.#INF"},
      {-limits::infinity(), "-1.#INF"},
      {nan, "1.#QNAN"},
      {std::copysign(nan, -1.0), "-1.#IND"},
  };
  for (auto const& row : rows) EXPECT_EQ(general_text(row.value), row.text);
}

TEST(GeneralNumber, HasTheDigitsOfTheRunTimeWhichRoundsTiesAwayFromZero) {
  std::mt19937_64 random(7);
  for (int n = 0; n < 2000 && !HasFailure(); ++n) {
    auto const seven_digits = static_cast<double>(random() % 9'000'000 + 1'000'000);
    for (int power = -10; power <= 13; ++power)
      expect_digits_of_the_run_time((seven_digits + 0.5) * std::pow(10.0, power));
    for (int power = 1; power <= 10; ++power) {
      double const fives = std::pow(5.0, power);
      double const odd = std::floor(seven_digits / fives) * 2 + 1;
      expect_digits_of_the_run_time(std::ldexp(-odd, -power - 1));
    }
    if (double const any = std::bit_cast<double>(random()); std::isfinite(any))
      expect_digits_of_the_run_time(any);
  }
  // Where rounding moves the exponent.
  for (int exponent = -310; exponent <= 308 && !HasFailure(); ++exponent)
    for (double const factor : {1.0, 0.99999994, 0.99999995, 0.999999951, 1.0000005})
      for (double const toward : {0.0, 1.0, limits::max()}) {
        double const value = factor * std::pow(10.0, exponent);
        expect_digits_of_the_run_time(std::nextafter(value, value * toward));
      }
}

TEST(GeneralNumber, TakesTheDecimalPointOfTheRunTimeInBothDirections) {
  if (!std::setlocale(LC_NUMERIC, "German")) GTEST_SKIP() << "needs a locale with a comma";
  _value_t const number = 1.5, text = number.as_string();
  double const back = text.as_double();
  std::setlocale(LC_NUMERIC, "C");
  EXPECT_EQ(text.as_string(), "1,5");
  EXPECT_EQ(back, 1.5);
}
