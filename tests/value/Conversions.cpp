// What a value reads and is written as, pair of types by pair, against the tables of the
// documentation.
#include <gtest/gtest.h>
#include <windows.h>

#include <comutil.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <map>
#include <type_traits>
#include <utility>

#include "tests/support/DocTables.h"
#include "tests/support/ElementTypes.h"
#include "tests/support/Expect.h"

using namespace velt_test;

namespace {

// The row of a table that begins with the name.
table_row const& row_of(std::string const& name, std::vector<table_row> const& rows) {
  return *std::ranges::find(rows, name, [](auto const& row) { return row[0]; });
}

// For each pair of element types, and whether the table marks it.
template <class Body>
void for_each_pair(std::string const& table, Body const& body) {
  auto const rows = doc_table("value.md", table);
  for_each_element_type([&]<class Row>() {
    for_each_element_type([&]<class Column>() {
      SCOPED_TRACE(element<Row>::name + std::string(", ") + element<Column>::name);
      auto const column = std::ranges::find(rows[0], element<Column>::name) - rows[0].begin();
      auto const cell = row_of(element<Row>::name, rows).at(static_cast<std::size_t>(column));
      body.template operator()<Row, Column>(cell == "yes");
    });
  });
}

// Numbers convert as in the language. Texts and objects have tests of their own.
template <class Wanted>
void expect_converted(_value_t const& value, auto const& sample) {
  using Sample = std::decay_t<decltype(sample)>;
  if constexpr (std::is_arithmetic_v<Wanted> && std::is_arithmetic_v<Sample>) {
    EXPECT_EQ(value.get<Wanted>(), static_cast<Wanted>(sample));
  }
}

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
  _value_t sample;
  for_each_element_type([&]<class T>() {
    if (kind == element<T>::name) sample = element<T>::sample();
  });
  return sample;
}

_bstr_t text_by_platform(_variant_t variant) {
  constexpr LCID american = 0x409;
  _variant_t text;
  auto const result = VariantChangeTypeEx(&text, &variant, american, VARIANT_ALPHABOOL, VT_BSTR);
  return SUCCEEDED(result) ? _bstr_t(V_BSTR(&text)) : L"refused";
}

}  // namespace

TEST(StrictTables, ReadingProvidesExactlyTheMarkedPairs) {
  for_each_pair("strict read", []<class Held, class Asked>(bool marked) {
    auto const read_from = [](_value_t const& value) {
      return values_of<EBadCastException>([&] { (void)static_cast<Asked>(value); });
    };
    Held const sample = element<Held>::sample();
    _value_t scalar = sample;
    _value_t const constant = scalar, sequence = std::vector<Held>{sample};
    for (_value_t const& value : {constant, sequence, scalar[0], constant[0]}) {
      EXPECT_EQ(read_from(value), marked ? "nothing" : bad_cast(typeid(Held), typeid(Asked)));
      if (marked) expect_converted<Asked>(value, sample);
    }
    EXPECT_EQ(read_from(_value_t()), bad_cast(typeid(void), typeid(Asked)));
  });
}

TEST(StrictTables, WritingProvidesExactlyTheMarkedPairsAndAppendingTheSameType) {
  for_each_pair("strict write", []<class Held, class Given>(bool marked) {
    auto const sample = element<Held>::sample();
    auto const given = element<Given>::sample();
    auto const refused = bad_cast(typeid(Given), typeid(Held));
    _value_t scalar = sample, sequence = std::vector<Held>{sample}, owner = sample;
    _value_t view = owner[0];
    for (_value_t* const value : {&scalar, &sequence, &view}) {
      auto const found = values_of<EBadCastException>([&] { *value = given; });
      EXPECT_EQ(found, marked ? "nothing" : refused);
      EXPECT_EQ(value->type(), typeid(Held)) << "a value keeps its type";
      if (marked) expect_converted<Held>(*value, given);
    }
    constexpr bool same = std::is_same_v<Held, Given>;
    auto const found = values_of<EBadCastException>([&] { scalar.push_back(given); });
    EXPECT_EQ(found, same ? "nothing" : refused);
    EXPECT_EQ(scalar.size(), same ? 2u : 1u);
    EXPECT_TRUE(scalar.container()) << "a scalar stays behind as a sequence of one";
  });
}

TEST(StrictTables, TextsConvertThroughTheCodePage) {
  std::string const narrow("a\xE4\0b", 4);
  std::wstring const wide(L"a\u00E4\0b", 4);
  EXPECT_EQ(_value_t(narrow).get<std::wstring>(), wide);
  EXPECT_EQ(_value_t(wide).get<std::string>(), narrow);
  EXPECT_EQ(_value_t(L"\u4E00").get<std::string>(), "?");
  EXPECT_EQ(_value_t(narrow).get<_bstr_t>(), _bstr_t(L"a\u00E4")) << "up to the first NUL";
  _bstr_t const whole = _value_t(wide).get<_bstr_t>();
  EXPECT_EQ(whole.length(), 4u) << "NULs included";
  EXPECT_EQ(_value_t(whole).get<std::wstring>(), wide);
  EXPECT_EQ(_value_t(whole).get<std::string>(), narrow);
  EXPECT_EQ(_value_t(_bstr_t()).get<std::wstring>(), L"");
  EXPECT_EQ(_value_t(_bstr_t()).get<std::string>(), "");
}

// It is made at the first use, without a lock, and threads may share the string.
TEST(StrictTables, NarrowCopyInAComStringIsNotUsed) {
  _bstr_t const text(L"old");
  EXPECT_STREQ(static_cast<char const*>(text), "old");
  static_cast<wchar_t*>(text)[0] = L'b';
  EXPECT_EQ(_value_t(text).get<std::string>(), "bld");
}

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
  // By as_int, as_ulong, as_int64, as_double and as_bool.
  std::pair<_value_t, std::string> const rows[] = {
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
  std::pair<_value_t, std::string> const rows[] = {
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

TEST(VariantBridge, PlatformReadsWhatTheValueHeld) {
  std::pair<_value_t, wchar_t const*> const rows[] = {
      {4.5, L"4.5"},
      {_time_t(1078057845), L"2/29/2004 12:30:45 PM"},
      {_bstr_t(L"Łódź"), L"Łódź"},
      {std::string("caf\xE9\0here", 9), L"café"},
      {true, L"True"},
      {4'294'967'295ul, L"4294967295"},
      {-9'223'372'036'854'775'807ll - 1, L"-9223372036854775808"},
      {std::vector<int>{-2'147'483'647 - 1, 8}, L"-2147483648"},
  };
  for (auto const& [value, text] : rows)
    EXPECT_EQ(text_by_platform(value.as_variant()), _bstr_t(text)) << value.as_string();
  EXPECT_EQ(_value_t(true).as_variant().boolVal, -1);
  EXPECT_BAD_CAST(void, _variant_t, _value_t().as_variant());
}

TEST(VariantBridge, DocumentationNamesTheTagOfEachType) {
  std::map<std::string, VARTYPE> const tags = {
      {"VT_EMPTY", VT_EMPTY}, {"VT_R8", VT_R8},   {"VT_DATE", VT_DATE}, {"VT_BSTR", VT_BSTR},
      {"VT_BOOL", VT_BOOL},   {"VT_UI4", VT_UI4}, {"VT_I8", VT_I8},     {"VT_INT", VT_INT}};
  auto const rows = doc_table("value.md", "variant");
  for_each_element_type([&]<class T>() {
    _value_t scalar = element<T>::sample();
    _value_t const constant = scalar, sequence = std::vector<T>{element<T>::sample()};
    for (_value_t const& value : {constant, scalar[0], constant[0], sequence})
      EXPECT_EQ(value.as_variant().vt, tags.at(row_of(element<T>::name, rows)[1]));
  });
}

TEST(VariantBridge, TextIsACopyToTheByte) {
  _bstr_t const odd(SysAllocStringByteLen("\1\0\3", 3), false);
  auto const variant = _value_t(odd).as_variant(), null = _value_t(_bstr_t()).as_variant();
  EXPECT_NE(V_BSTR(&variant), static_cast<wchar_t*>(odd));
  ASSERT_EQ(SysStringByteLen(V_BSTR(&variant)), 3u);
  EXPECT_EQ(std::memcmp(V_BSTR(&variant), "\1\0\3", 3), 0);
  EXPECT_TRUE(V_VT(&null) == VT_BSTR && !V_BSTR(&null));
}
