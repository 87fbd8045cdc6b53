// The two strict tables, pair by pair, against those of the documentation.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <stdexcept>

#include "tests/support/Expect.h"
#include "tests/support/DocTables.h"
#include "tests/support/ElementTypes.h"

using namespace velt_test;

namespace {

// The pairs (row, column) that a table marks.
std::set<std::pair<std::string, std::string>> marked_pairs(std::string const& table) {
  auto const rows = doc_table("value.md", table);
  std::set<std::pair<std::string, std::string>> pairs;
  for (std::size_t row = 1; row < rows.size(); ++row) {
    if (rows[row].size() != rows[0].size()) throw std::runtime_error("a row has missing cells");
    for (std::size_t column = 1; column < rows[row].size(); ++column)
      if (rows[row][column] == "yes") pairs.emplace(rows[row][0], rows[0][column]);
  }
  return pairs;
}

// For each pair of element types.
void for_each_pair(std::function<void(element_operations const&, element_operations const&)> body) {
  for (auto const& first : all_element_types())
    for (auto const& second : all_element_types()) body(first, second);
}

}  // namespace

TEST(StrictTables, ReadingProvidesExactlyTheMarkedPairs) {
  auto const marked = marked_pairs("strict read");
  for_each_pair([&marked](auto const& held, auto const& asked) {
    SCOPED_TRACE(std::string(held.name) + " read as " + asked.name);
    _value_t scalar = held.scalar();
    _value_t const constant = scalar;
    _value_t const sequence = held.sequence(), view = scalar[0], constant_view = constant[0];
    for (_value_t const& value : {constant, sequence, view, constant_view}) {
      if (marked.contains({held.name, asked.name}))
        EXPECT_NO_THROW(asked.read(value));
      else
        EXPECT_TRUE(throws_bad_cast(held.type, asked.type, [&] { asked.read(value); }));
    }
    EXPECT_TRUE(throws_bad_cast(typeid(void), asked.type, [&] { asked.read(_value_t()); }));
  });
}

TEST(StrictTables, WritingProvidesExactlyTheMarkedPairs) {
  auto const marked = marked_pairs("strict write");
  for_each_pair([&marked](auto const& holder, auto const& given) {
    SCOPED_TRACE(std::string(given.name) + " written into " + holder.name);
    _value_t scalar = holder.scalar(), sequence = holder.sequence(), owner = holder.scalar();
    _value_t view = owner[0];
    for (_value_t* const value : {&scalar, &sequence, &view}) {
      if (marked.contains({holder.name, given.name}))
        EXPECT_NO_THROW(given.write(*value));
      else
        EXPECT_TRUE(throws_bad_cast(given.type, holder.type, [&] { given.write(*value); }));
      EXPECT_EQ(value->type(), holder.type) << "a value keeps its type";
    }
  });
}

TEST(StrictTables, NumbersConvertByTheirBits) {
  EXPECT_EQ(_value_t(-1).get<unsigned long>(), 0xFFFFFFFFul);
  EXPECT_EQ(_value_t(0xFFFFFFFEul).get<int>(), -2);
  EXPECT_EQ(_value_t(-1).get<__int64>(), -1);
  EXPECT_EQ(_value_t(0xFFFFFFFFul).get<__int64>(), 0xFFFFFFFFll);
  EXPECT_EQ(_value_t(7).get<double>(), 7.0);
  EXPECT_EQ(_value_t(true).get<unsigned long>(), 1ul);

  _value_t wide = 0ll;
  wide = -5;
  EXPECT_EQ(wide.get<__int64>(), -5);
  wide = 0xFFFFFFFFul;
  EXPECT_EQ(wide.get<__int64>(), 0xFFFFFFFFll);
  _value_t number = 1.5;
  number = 2;
  EXPECT_EQ(number.get<double>(), 2.0);
  _value_t bits = 0;
  bits = 0xFFFFFFFFul;
  EXPECT_EQ(bits.get<int>(), -1);
}

TEST(StrictTables, TextsConvertThroughTheCodePage) {
  std::string const narrow("a\xE4\0b", 4);
  std::wstring const wide(L"a\u00E4\0b", 4);
  EXPECT_EQ(_value_t(narrow).get<std::wstring>(), wide);
  EXPECT_EQ(_value_t(wide).get<std::string>(), narrow);
  EXPECT_EQ(_value_t(std::wstring(L"\u4E00")).get<std::string>(), "?");

  _bstr_t const cut = _value_t(narrow).get<_bstr_t>();
  EXPECT_STREQ(static_cast<wchar_t const*>(cut), L"a\u00E4");
  EXPECT_EQ(cut.length(), 2u) << "up to the first NUL";
  _bstr_t const whole = _value_t(wide).get<_bstr_t>();
  EXPECT_EQ(whole.length(), 4u) << "NULs included";
  EXPECT_EQ(_value_t(whole).get<std::wstring>(), wide);
  EXPECT_EQ(_value_t(_bstr_t(L"a\u00E4")).get<std::string>(), "a\xE4");

  _bstr_t const null;
  EXPECT_EQ(_value_t(null).get<std::wstring>(), L"");
  EXPECT_EQ(_value_t(null).get<std::string>(), "");
}

TEST(StrictTables, OnlyASequenceOfTheSameTypeTakesAnElement) {
  for_each_pair([](auto const& held, auto const& given) {
    _value_t value = held.scalar();
    bool const same = held.type == given.type;
    if (same)
      given.push_back(value);
    else
      EXPECT_TRUE(throws_bad_cast(given.type, held.type, [&] { given.push_back(value); }));
    EXPECT_EQ(value.size(), same ? 2u : 1u);
    EXPECT_TRUE(value.container()) << "a scalar stays behind as a sequence of one";
  });
}
