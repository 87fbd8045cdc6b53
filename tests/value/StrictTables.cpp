// The two strict tables, pair by pair, against those of the documentation.
#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "tests/support/DocTables.h"
#include "tests/support/ElementTypes.h"
#include "tests/support/Expect.h"

using namespace velt_test;

namespace {

using Pair = void(element_operations const& row, element_operations const& column, bool marked);

// For each pair of element types, and whether the table marks it.
void for_each_pair(std::string const& table, std::function<Pair> const& body) {
  auto const rows = doc_table("value.md", table);
  std::map<std::pair<std::string, std::string>, bool> marked;
  for (auto const& row : rows)
    for (std::size_t column = 1; column < rows[0].size(); ++column)
      marked[{row[0], rows[0][column]}] = row.at(column) == "yes";
  for (auto const& row : all_element_types())
    for (auto const& column : all_element_types()) {
      SCOPED_TRACE(std::string(row.name) + ", " + column.name);
      body(row, column, marked.at({row.name, column.name}));
    }
}

}  // namespace

TEST(StrictTables, ReadingProvidesExactlyTheMarkedPairs) {
  for_each_pair("strict read", [](auto const& held, auto const& asked, bool marked) {
    _value_t scalar = held.scalar();
    _value_t const constant = scalar;
    _value_t const sequence = held.sequence(), view = scalar[0], constant_view = constant[0];
    for (_value_t const& value : {constant, sequence, view, constant_view}) {
      if (marked)
        EXPECT_NO_THROW(asked.read(value));
      else
        EXPECT_TRUE(throws_bad_cast(held.type, asked.type, [&] { asked.read(value); }));
    }
    EXPECT_TRUE(throws_bad_cast(typeid(void), asked.type, [&] { asked.read(_value_t()); }));
  });
}

TEST(StrictTables, WritingProvidesExactlyTheMarkedPairsAndAppendingTheSameType) {
  for_each_pair("strict write", [](auto const& holder, auto const& given, bool marked) {
    _value_t scalar = holder.scalar(), sequence = holder.sequence(), owner = holder.scalar();
    _value_t view = owner[0];
    for (_value_t* const value : {&scalar, &sequence, &view}) {
      if (marked)
        EXPECT_NO_THROW(given.write(*value));
      else
        EXPECT_TRUE(throws_bad_cast(given.type, holder.type, [&] { given.write(*value); }));
      EXPECT_EQ(value->type(), holder.type) << "a value keeps its type";
    }
    bool const same = holder.type == given.type;
    auto const append = [&] { given.push_back(scalar); };
    if (same)
      append();
    else
      EXPECT_TRUE(throws_bad_cast(given.type, holder.type, append));
    EXPECT_EQ(scalar.size(), same ? 2u : 1u);
    EXPECT_TRUE(scalar.container()) << "a scalar stays behind as a sequence of one";
  });
}

TEST(StrictTables, NumbersConvertByTheirBits) {
  EXPECT_EQ(_value_t(-1).get<unsigned long>(), 0xFFFFFFFFul);
  EXPECT_EQ(_value_t(0xFFFFFFFEul).get<int>(), -2);
  EXPECT_EQ(_value_t(-1).get<__int64>(), -1);
  EXPECT_EQ(_value_t(0xFFFFFFFFul).get<__int64>(), 0xFFFFFFFFll);
  EXPECT_EQ(_value_t(7).get<double>(), 7.0);
  EXPECT_EQ(_value_t(true).get<unsigned long>(), 1ul);
  EXPECT_EQ(_value_t(true).get<int>(), 1);

  _value_t wide = 0ll, number = 1.5, bits = 0;
  wide = -5;
  EXPECT_EQ(wide.get<__int64>(), -5);
  wide = 0xFFFFFFFFul;
  EXPECT_EQ(wide.get<__int64>(), 0xFFFFFFFFll);
  number = 2;
  EXPECT_EQ(number.get<double>(), 2.0);
  bits = 0xFFFFFFFFul;
  EXPECT_EQ(bits.get<int>(), -1);
  bits = true;
  EXPECT_EQ(bits.get<int>(), 1);
  _value_t word = 0ul;
  word = -1;
  EXPECT_EQ(word.get<unsigned long>(), 0xFFFFFFFFul);
  word = true;
  EXPECT_EQ(word.get<unsigned long>(), 1ul);
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
