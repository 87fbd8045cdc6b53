// The as_* accessors, row by row, and the cells that refuse against those of
// the documentation.
#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <map>

#include "tests/support/DocTables.h"
#include "tests/support/ElementTypes.h"
#include "tests/support/Expect.h"

using namespace velt_test;

namespace {

std::string text_of(auto number) {
  char text[40];
  return {text, std::to_chars(text, std::end(text), number).ptr};
}

std::map<std::string, std::string (*)(_value_t const&)> const accessors = {
    {"as_int", [](auto& value) { return text_of(value.as_int()); }},
    {"as_ulong", [](auto& value) { return text_of(value.as_ulong()); }},
    {"as_int64", [](auto& value) { return text_of(value.as_int64()); }},
    {"as_double", [](auto& value) { return text_of(value.as_double()); }},
    {"as_bool", [](auto& value) { return std::string(value.as_bool() ? "true" : "false"); }},
    {"as_time", [](auto& value) { return value.as_time().ctime(); }},
    {"as_string, as_wstring, as_bstr",
     [](auto& value) { return value.as_wstring(), value.as_bstr(), value.as_string(); }},
};

_value_t sample_of_kind(std::string const& kind) {
  if (kind == "text") return element<std::string>::sample();
  if (kind == "object") return element<SmartPtr<SmartPtrObj>>::sample();
  for (auto const& type : all_element_types())
    if (kind == type.name) return type.scalar();
  throw std::runtime_error("no type " + kind);
}

}  // namespace

TEST(LenientReading, RefusesExactlyTheCellsOfTheDocumentation) {
  auto const rows = doc_table("value.md", "lenient");
  ASSERT_EQ(rows.size(), 1 + accessors.size());
  for (std::size_t row = 1; row < rows.size(); ++row)
    for (std::size_t column = 1; column < rows[row].size(); ++column) {
      auto const sample = sample_of_kind(rows[0][column]);
      auto const found = values_of<EBadCastException>(
          [&] { accessors.at(rows[row][0])(sample); });
      auto const refusal =
          "Text=Bad cast;From=" + velt::detail::readable_name(sample.type()) + ";To=";
      EXPECT_EQ(found.starts_with(refusal), rows[row][column] == "throws")
          << rows[row][0] << " of " << rows[0][column] << ": " << found;
    }
}

TEST(LenientReading, NumbersComeOutByTheRules) {
  struct {
    _value_t value;
    std::string expected;  // as_int, as_ulong, as_int64, as_double, as_bool
  } const rows[] = {
      {-1.9, "-1 4294967295 -1 -1.9 true"},
      {0.5, "0 0 0 0.5 false"},
      {3e9, "-2147483648 3000000000 -2147483648 3e+09 true"},
      {1e300, "-2147483648 0 -2147483648 1e+300 true"},
      {std::nan(""), "-2147483648 0 -2147483648 nan true"},
      {_time_t(0x100000005), "5 5 4294967301 4294967301 true"},
      {_time_t::invalid, "-1 4294967295 -1 -1 true"},
      {" -12abc", "-12 4294967284 -12 -12 true"},
      {L"7.5", "7 7 7 7.5 true"},
      {"TrUe", "0 0 0 0 true"},
      {"", "0 0 0 0 false"},
      {true, "1 1 1 1 true"},
      {0xFFFFFFFFul, "-1 4294967295 4294967295 4294967295 true"},
      {std::vector<int>{-2, 0}, "-2 4294967294 -2 -2 true"},
  };
  for (auto const& [value, expected] : rows) {
    std::string found;
    for (auto const accessor : {"as_int", "as_ulong", "as_int64", "as_double", "as_bool"})
      found += (found.empty() ? "" : " ") + accessors.at(accessor)(value);
    EXPECT_EQ(found, expected);
  }
  // Not all of these read as an int.
  _value_t const text = _bstr_t(L"+3000000000"), wide = 0x7FFFFFFFFFFFFFFFll;
  EXPECT_EQ(text.as_ulong(), 3'000'000'000ul);
  EXPECT_EQ(text.as_int64(), 3'000'000'000);
  EXPECT_EQ(wide.as_ulong(), 0xFFFFFFFFul);
  EXPECT_EQ(wide.as_int64(), 0x7FFFFFFFFFFFFFFF);
  EXPECT_EQ(wide.as_double(), 9223372036854775808.0);
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
      {1e10, "1.e+010"},
      {true, "true"},
      {false, "false"},
      {-12, "-12"},
      {0xFFFFFFFFul, "4294967295"},
      {-5ll, "-5"},
      {_time_t::invalid, "<invalid time>"},
      {_time_t(86400 * 200), _time_t(86400 * 200).ctime()},
      {L"b\u00E4", "b\xE4"},
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
