#include "velt/text/Numbers.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <limits>
#include <random>
#include <vector>

namespace {

// In every radix, against the function of the run time.
template <class Value, class Char>
void expect_like(std::basic_string<Char> (*ours)(Value, int),
                 errno_t (*run_time)(Value, Char*, std::size_t, int)) {
  using limits = std::numeric_limits<Value>;
  std::vector<Value> samples = {0, 1, static_cast<Value>(-1), 9, 10, limits::min(), limits::max()};
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

}  // namespace

TEST(Numbers, AreWrittenAsTheRunTimeWritesThem) {
  expect_like<int, char>(itoa, _itoa_s);
  expect_like<unsigned __int64, char>(ui64toa, _ui64toa_s);
  expect_like<long, wchar_t>(ltow, _ltow_s);
  expect_like<__int64, wchar_t>(i64tow, _i64tow_s);
}

TEST(Numbers, HaveFunctionsBesideThoseOfThePlatform) {
  char digits[20];
  EXPECT_STREQ(itoa(5, digits, 10), itoa(5).c_str());
  EXPECT_STREQ(ltoa(5, digits, 10), ltoa(5).c_str());
  EXPECT_EQ(atoi("12") + atol("12"), atoi(std::string("12")) + atol(std::string("12")));
}

TEST(Numbers, AreReadFromTheStartAndNeverFail) {
  constexpr struct {
    char const* text;
    int number;
  } rows[] = {{"12abc", 12}, {"abc", 0}, {"", 0}, {" \t-7", -7}, {"+3.9", 3}, {"--1", 0}};
  for (auto const& row : rows) {
    std::string const text = row.text;
    EXPECT_EQ(atoi(text), row.number) << text;
    EXPECT_EQ(atol(text), row.number) << text;
    EXPECT_EQ(wtoi(std::wstring(text.begin(), text.end())), row.number) << text;
  }
}
