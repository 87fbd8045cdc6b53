#include "velt/text/Numbers.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <bit>
#include <clocale>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "velt/text/GeneralNumberInternal.h"
#include "velt/value/Value.h"

namespace {

// In every radix, against the function of the run time.
template <class Value, class Char>
void expect_like(std::basic_string<Char> (*ours)(Value, int),
                 errno_t (*run_time)(Value, Char*, std::size_t, int)) {
  using range = std::numeric_limits<Value>;
  std::vector<Value> samples = {0, 1, static_cast<Value>(-1), 9, 10, range::min(), range::max()};
  std::mt19937_64 random(1);
  for (int n = 0; n < 200; ++n) samples.push_back(static_cast<Value>(random() >> random() % 64));
  for (int radix = 2; radix <= 36; ++radix)
    for (auto const value : samples) {
      Char expected[65];
      ASSERT_EQ(run_time(value, expected, 65, radix), 0);
      ASSERT_EQ(ours(value, radix), expected) << value << " in radix " << radix;
    }
  for (int const radix : {-10, 0, 1, 37}) EXPECT_TRUE(ours(5, radix).empty());
}

using velt::detail::general_text;
using limits = std::numeric_limits<double>;

// The run time puts the same digits into other forms, which it reads back alike.
void expect_digits_of_the_run_time(double value) {
  char expected[32];
  ASSERT_EQ(_gcvt_s(expected, sizeof expected, value, 7), 0);
  auto const text = general_text(value);
  ASSERT_EQ(std::bit_cast<__int64>(atof(text.c_str())),
            std::bit_cast<__int64>(atof(expected)))
      << text << ' ' << expected;
}

}  // namespace

TEST(Numbers, AreWrittenAsTheRunTimeWritesThem) {
  expect_like<int, char>(itoa, _itoa_s);
  expect_like<unsigned __int64, char>(ui64toa, _ui64toa_s);
  expect_like<long, wchar_t>(ltow, _ltow_s);
  expect_like<__int64, wchar_t>(i64tow, _i64tow_s);
}

TEST(GeneralNumber, HasTheFormOfThePlatform) {
  auto const nan = limits::quiet_NaN();
  std::pair<double, char const*> const rows[] = {
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
  for (auto const& [value, text] : rows) EXPECT_EQ(general_text(value), text);
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
}

TEST(GeneralNumber, TakesTheDecimalPointOfTheRunTimeInBothDirections) {
  if (!std::setlocale(LC_NUMERIC, "German")) GTEST_SKIP() << "needs a locale with a comma";
  _value_t const number = 1.5, text = number.as_string();
  double const back = text.as_double();
  std::setlocale(LC_NUMERIC, "C");
  EXPECT_EQ(text.as_string(), "1,5");
  EXPECT_EQ(back, 1.5);
}
