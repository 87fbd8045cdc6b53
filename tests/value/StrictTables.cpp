// The two strict tables, pair by pair, against those of the documentation.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <stdexcept>

#include "tests/support/BadCast.h"
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

template <class T>
T const* tag = nullptr;

}  // namespace

TEST(StrictTables, DocumentationNamesAllElevenTypes) {
  for (auto const table : {"strict read", "strict write"}) {
    auto const rows = doc_table("value.md", table);
    ASSERT_EQ(rows.size(), 12u);
    for_each_element_type([&]<class T>() {
      EXPECT_EQ(std::ranges::count(rows[0], element<T>::name), 1) << element<T>::name;
      EXPECT_EQ(std::ranges::count_if(rows, [](auto& row) { return row[0] == element<T>::name; }),
                1);
    });
  }
}

TEST(StrictTables, ReadingProvidesExactlyTheMarkedPairs) {
  auto const marked = marked_pairs("strict read");
  for_each_pair([&marked]<class Held, class Asked>() {
    SCOPED_TRACE(std::string(element<Held>::name) + " read as " + element<Asked>::name);
    _value_t scalar = element<Held>::sample();
    _value_t const sequence = std::vector<Held>{element<Held>::sample()};
    _value_t const constant = scalar;
    _value_t const view = scalar[0], constant_view = constant[0];
    for (_value_t const& value : {constant, sequence, view, constant_view}) {
      if (marked.contains({element<Held>::name, element<Asked>::name})) {
        EXPECT_NO_THROW((void)value.template get<Asked>());
        EXPECT_NO_THROW((void)static_cast<Asked>(value));
      } else {
        EXPECT_BAD_CAST(Held, Asked, (void)value.template get<Asked>());
      }
    }
  });
}

TEST(StrictTables, WritingProvidesExactlyTheMarkedPairs) {
  auto const marked = marked_pairs("strict write");
  for_each_pair([&]<class Holder, class Given>() {
    SCOPED_TRACE(std::string(element<Given>::name) + " written into " + element<Holder>::name);
    _value_t scalar = element<Holder>::sample();
    _value_t owner = element<Holder>::sample();
    _value_t sequence = std::vector<Holder>{element<Holder>::sample()};
    auto const given = element<Given>::sample();
    auto write_view = [&] {
      _value_t view = owner[0];
      view = given;
    };
    if (marked.contains({element<Holder>::name, element<Given>::name})) {
      EXPECT_NO_THROW(scalar = given);
      EXPECT_NO_THROW(sequence = given);
      EXPECT_NO_THROW(write_view());
    } else {
      EXPECT_BAD_CAST(Given, Holder, scalar = given);
      EXPECT_BAD_CAST(Given, Holder, sequence = given);
      EXPECT_BAD_CAST(Given, Holder, write_view());
    }
    EXPECT_EQ(scalar.type(), typeid(Holder)) << "a value keeps its type";
  });
}

TEST(StrictTables, AddressOfTheElementIsGivenForExactlyItsType) {
  for_each_pair([]<class Held, class Asked>() {
    _value_t const value = element<Held>::sample();
    if constexpr (std::is_same_v<Held, Asked>)
      EXPECT_TRUE(value.holder()->getp(tag<Asked>));
    else
      EXPECT_BAD_CAST(Held, Asked, (void)value.holder()->getp(tag<Asked>));
  });
}

TEST(StrictTables, OnlyASequenceOfTheSameTypeTakesAnElement) {
  for_each_pair([]<class Held, class Given>() {
    _value_t value = element<Held>::sample();
    if constexpr (std::is_same_v<Held, Given>) {
      value.push_back(element<Given>::sample());
      EXPECT_EQ(value.size(), 2u);
    } else {
      EXPECT_BAD_CAST(Given, Held, value.push_back(element<Given>::sample()));
      EXPECT_EQ(value.size(), 1u);
    }
    EXPECT_TRUE(value.container()) << "a scalar stays behind as a sequence of one";
  });
}

TEST(StrictTables, EmptyValueReadsAsNothing) {
  for_each_element_type([]<class T>() {
    _value_t const empty;
    EXPECT_BAD_CAST(void, T, (void)empty.get<T>());
    EXPECT_TRUE((static_cast<std::vector<T>>(empty).empty()));
    EXPECT_TRUE((static_cast<std::list<T>>(empty).empty()));
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

TEST(StrictTables, ObjectsGainAReference) {
  SmartPtr<SmartPtrObj> const object(new Object);
  _value_t const value = object;
  EXPECT_EQ(object.use_count(), 2);
  SmartPtr<const SmartPtrObj> const constant = value;
  EXPECT_EQ(object.use_count(), 3);
  EXPECT_EQ(constant, object);
}
