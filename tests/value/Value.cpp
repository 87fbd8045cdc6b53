#include "velt/value/Value.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/Expect.h"
#include "tests/support/ElementTypes.h"

using namespace velt_test;

static_assert(sizeof(_value_t) == sizeof(void*));
static_assert(!std::is_constructible_v<_value_t, void*>, "would become a bool");
static_assert(!std::is_assignable_v<_value_t&, int*>, "would become a bool");

TEST(Value, TakesTheTypeThatItIsMadeOf) {
  for_each_element_type([]<class T>() {
    _value_t const value = element<T>::sample();
    EXPECT_EQ(value.type(), typeid(T));
    EXPECT_EQ(value.size(), 1u);
    EXPECT_FALSE(value.container());
    EXPECT_EQ(value.object(), velt::detail::is_object<T>);
    _value_t assigned;
    assigned = element<T>::sample();
    EXPECT_EQ(assigned.type(), typeid(T));
  });
  EXPECT_EQ(_value_t(short(3)).type(), typeid(int));
  EXPECT_EQ(_value_t(1.5f).type(), typeid(double));
  EXPECT_EQ(_value_t(new Object).type(), typeid(SmartPtr<SmartPtrObj>));
  EXPECT_EQ(_value_t(static_cast<Object const*>(new Object)).type(),
            typeid(SmartPtr<const SmartPtrObj>));
  EXPECT_EQ(_value_t().type(), typeid(void));
}

TEST(Value, CopySharesUntilOneIsWrittenAndMovedFromIsEmpty) {
  _value_t first = 1;
  _value_t second = first;
  EXPECT_EQ(first.holder(), second.holder());
  second = 2;
  EXPECT_EQ(first.get<int>(), 1);
  EXPECT_EQ(second.get<int>(), 2);

  _value_t third = first;
  EXPECT_BAD_CAST(std::string, int, third = "text");
  EXPECT_NE(first.holder(), third.holder()) << "a refused write leaves a private copy";
  EXPECT_EQ(third.get<int>(), 1);
  second = std::move(first);
  EXPECT_TRUE(first.empty());
  EXPECT_FALSE(_value_t(static_cast<SmartPtrObj*>(nullptr)).empty());
}

TEST(Value, TextOfAGivenLengthIsTakenWhole) {
  EXPECT_EQ(_value_t(basic_const_string<wchar_t>(nullptr, 0)).get<std::wstring>(), L"");
  EXPECT_EQ(_value_t(basic_const_string<char>("a\0bc", 3)).get<std::string>(),
            std::string("a\0b", 3));
  _value_t wide = L"before";
  wide = basic_const_string<char>("afterwards", 5);
  EXPECT_EQ(wide.get<std::wstring>(), L"after");
}

TEST(Value, ComparesByTheTypeOnTheLeft) {
  _value_t const empty, one = 1, yes = true, text = "b", nan_value = std::nan("");
  EXPECT_EQ(empty, _value_t());
  EXPECT_NE(empty, one);
  EXPECT_LT(empty, one);
  EXPECT_FALSE(one < empty || empty < _value_t());

  EXPECT_EQ(one, yes);
  EXPECT_BAD_CAST(int, bool, (void)(yes == one));
  EXPECT_EQ(text, _value_t(L"b"));
  EXPECT_LT(_value_t("B"), text);
  EXPECT_NE(nan_value, nan_value);
  EXPECT_LT(_value_t(-1), one);
  EXPECT_LT(_value_t(1ul), _value_t(-1)) << "unsigned on the left";
  EXPECT_LT(_value_t(_time_t(1)), _value_t(_time_t(2)));
}

TEST(Value, ComStringsCompareByCodeUnitsAndLength) {
  _bstr_t const with_nul(SysAllocStringLen(L"a\0", 2), false);
  _value_t const ascending[] = {_bstr_t(), _bstr_t(L"a"), with_nul, _bstr_t(L"aa"),
                                _bstr_t(L"\uFFFD")};
  for (auto& a : ascending)
    for (auto& b : ascending) {
      EXPECT_EQ(a == b, &a == &b);
      EXPECT_EQ(a < b, &a < &b);
    }
  EXPECT_EQ(ascending[0], _value_t(_bstr_t(L"")));
}

TEST(Value, ScalarIsASequenceOfOneInComparisons) {
  _value_t const one = 1, ones = std::vector<int>{1}, pair = std::vector<int>{1, 2},
                 words = std::vector<std::string>{"a", "b"};
  EXPECT_EQ(one, ones);
  EXPECT_EQ(ones, one);
  EXPECT_NE(one, words) << "another length needs no conversion";
  EXPECT_BAD_CAST(std::string, int, (void)(one == _value_t("1")));
  EXPECT_LT(one, _value_t(std::vector<int>{2, 0})) << "by the first element";
  EXPECT_LT(ones, pair);
  EXPECT_FALSE(pair < ones);
  EXPECT_BAD_CAST(double, int, (void)(pair < _value_t(std::vector<double>{1.0})));
}
