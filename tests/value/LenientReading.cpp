// The as_* accessors, row by row, and the cells that refuse against those of
// the documentation.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>

#include "tests/support/Expect.h"
#include "tests/support/DocTables.h"
#include "tests/support/ElementTypes.h"

using namespace velt_test;

namespace {

constexpr int lowest = std::numeric_limits<int>::min();
double const nan_value = std::nan("");

// What the four numeric accessors and as_bool make of a value; nothing where
// they refuse.
struct reading {
  _value_t value;
  std::optional<int> as_int;
  std::optional<unsigned long> as_ulong;
  std::optional<__int64> as_int64;
  std::optional<double> as_double;
  std::optional<bool> as_bool;
};

std::vector<reading> readings() {
  return {
      {-1.9, -1, 0xFFFFFFFFul, -1, -1.9, true},
      {0.5, 0, 0ul, 0, 0.5, false},
      {3000000000.0, lowest, 3000000000ul, lowest, 3000000000.0, true},
      {1e300, lowest, 0ul, lowest, 1e300, true},
      {_time_t(0x100000005), 5, 5ul, 0x100000005, 4294967301.0, true},
      {_time_t::invalid, -1, 0xFFFFFFFFul, -1, -1.0, true},
      {" -12abc", -12, 4294967284ul, -12, -12.0, true},
      {L"7.5", 7, 7ul, 7, 7.5, true},
      {_bstr_t(L"+3000000000"), {}, 3000000000ul, 3000000000, 3e9, {}},
      {"TrUe", 0, 0ul, 0, 0.0, true},
      {"", 0, 0ul, 0, 0.0, false},
      {true, 1, 1ul, 1, 1.0, true},
      {0xFFFFFFFFul, -1, 0xFFFFFFFFul, 0xFFFFFFFFll, 4294967295.0, true},
      {0x100000005ll, {}, 5ul, 0x100000005, 4294967301.0, true},
      {0x7FFFFFFFFFFFFFFFll, {}, 0xFFFFFFFFul, 0x7FFFFFFFFFFFFFFF, 9223372036854775808.0,
       true},
      {-2, -2, 0xFFFFFFFEul, -2, -2.0, true},
      {std::vector<int>{6, 0}, 6, 6ul, 6, 6.0, true},
  };
}

template <class T, class Read>
void expect_reading(std::optional<T> const& expected, Read const& read) {
  if (expected) {
    EXPECT_EQ(read(), *expected);
  }
}

_value_t sample_of_kind(std::string const& kind) {
  if (kind == "text") return element<std::string>::sample();
  if (kind == "object") return element<SmartPtr<SmartPtrObj>>::sample();
  _value_t sample;
  for_each_element_type([&]<class T>() {
    if (kind == element<T>::name) sample = _value_t(element<T>::sample());
  });
  return sample;
}

// A refusal names the held type.
bool refuses(std::string const& accessor, _value_t const& value) {
  try {
    if (accessor == "as_int") (void)value.as_int();
    if (accessor == "as_ulong") (void)value.as_ulong();
    if (accessor == "as_int64") (void)value.as_int64();
    if (accessor == "as_double") (void)value.as_double();
    if (accessor == "as_bool") (void)value.as_bool();
    if (accessor == "as_time") (void)value.as_time();
    if (accessor.starts_with("as_string"))
      (void)value.as_string(), (void)value.as_wstring(), (void)value.as_bstr();
    return false;
  } catch (EBadCastException const& error) {
    return error["From"].as_string() == velt::detail::readable_name(value.type());
  }
}

}  // namespace

TEST(LenientReading, RefusesExactlyTheCellsOfTheDocumentation) {
  auto const rows = doc_table("value.md", "lenient");
  ASSERT_EQ(rows.size(), 8u);
  for (std::size_t row = 1; row < rows.size(); ++row)
    for (std::size_t column = 1; column < rows[row].size(); ++column) {
      auto const sample = sample_of_kind(rows[0][column]);
      ASSERT_FALSE(sample.empty()) << rows[0][column];
      EXPECT_EQ(refuses(rows[row][0], sample), rows[row][column] == "throws")
          << rows[row][0] << " of " << rows[0][column];
    }
}

TEST(LenientReading, NumbersComeOutByTheRules) {
  for (auto const& row : readings()) {
    SCOPED_TRACE(row.value.as_string());
    expect_reading(row.as_int, [&] { return row.value.as_int(); });
    expect_reading(row.as_ulong, [&] { return row.value.as_ulong(); });
    expect_reading(row.as_int64, [&] { return row.value.as_int64(); });
    expect_reading(row.as_double, [&] { return row.value.as_double(); });
    expect_reading(row.as_bool, [&] { return row.value.as_bool(); });
  }
  EXPECT_EQ(_value_t(nan_value).as_int(), lowest);
  EXPECT_TRUE(_value_t(nan_value).as_bool());
}

TEST(LenientReading, TimesComeFromSecondsAndFromComDates) {
  EXPECT_EQ(_value_t(1000).as_time(), _time_t(1000));
  EXPECT_EQ(_value_t(0xFFFFFFFFul).as_time(), _time_t(-1)) << "the same 32 bits as an int";
  EXPECT_EQ(_value_t(25569.5).as_time(), _time_t(43200)) << "noon of 1970-01-01, UTC";
  EXPECT_EQ(_value_t(0.0).as_time(), _time_t::invalid);
}

TEST(LenientReading, EveryKindHasItsText) {
  SmartPtr<SmartPtrObj> const object(new Object);
  struct {
    _value_t value;
    std::string text;
  } const rows[] = {
      {1.5, "1.5"},           {100.0, "100."},
      {1e10, "1.e+010"},      {0.0, "0."},
      {true, "true"},         {false, "false"},
      {-12, "-12"},           {0xFFFFFFFFul, "4294967295"},
      {-5ll, "-5"},    {_time_t::invalid, "<invalid time>"},
      {_time_t(86400 * 200), _time_t(86400 * 200).ctime()},
      {"a\xE4", "a\xE4"},     {L"b\u00E4", "b\xE4"},
      {_bstr_t(SysAllocStringLen(L"c\0d", 3), false), std::string("c\0d", 3)},
      {static_cast<SmartPtrObj*>(nullptr), "<null>"},
      {object, object->describe()},
  };
  for (auto const& [value, text] : rows) {
    std::wstring const wide = _value_t(text);
    EXPECT_EQ(value.as_string(), text);
    EXPECT_EQ(value.as_wstring(), wide);
    EXPECT_STREQ(static_cast<wchar_t const*>(value.as_bstr()), wide.c_str());
  }
}

TEST(LenientReading, OnlyTheNarrowTextListsASequence) {
  _value_t const numbers = std::vector<int>{1, 2, 3};
  EXPECT_EQ(numbers.as_string(), "{1,2,3}");
  EXPECT_EQ(numbers.as_wstring(), L"1");
  EXPECT_STREQ(static_cast<wchar_t const*>(numbers.as_bstr()), L"1");
  EXPECT_EQ(_value_t(std::vector<std::string>{"a", "b,c"}).as_string(), "{a,b,c}");
  EXPECT_EQ(_value_t(std::vector<bool>{true, false}).as_string(), "{true,false}");
  EXPECT_EQ(_value_t(std::vector<double>()).as_string(), "{}");
}
