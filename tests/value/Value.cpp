#include "velt/value/Value.h"

#include <gmock/gmock.h>

#include <cmath>
#include <stdexcept>

#include "tests/support/Expect.h"
#include "tests/support/ElementTypes.h"

using namespace velt_test;

static_assert(sizeof(_value_t) == sizeof(void*));

TEST(Value, TakesTheTypeThatItIsMadeOfAndTheCollection) {
  for_each_element_type([]<class T>() {
    SCOPED_TRACE(element<T>::name);
    T const sample = element<T>::sample();
    _value_t const value = sample;
    EXPECT_EQ(value.type(), typeid(T));
    EXPECT_TRUE(!value.container() && value.size() == 1);
    EXPECT_EQ(value.object(), velt::detail::is_object<T>);
    _value_t assigned;
    assigned = sample;
    EXPECT_EQ(assigned.type(), typeid(T));

    T const array[] = {sample, T(), sample};
    std::vector<T> const vector(array, array + 3);
    std::list<T> const list(vector.begin(), vector.end());
    std::set<T> const set(vector.begin(), vector.end());
    _value_t const whole = const_array<T>(array);
    for (_value_t const& all : {_value_t(vector), _value_t(list), whole}) {
      EXPECT_TRUE(all.container() && all.size() == 3 && all.type() == typeid(T));
      EXPECT_EQ(all.object(), velt::detail::is_object<T>);
      EXPECT_TRUE(static_cast<std::vector<T>>(all) == vector);
      EXPECT_TRUE(static_cast<std::list<T>>(all) == list);
      EXPECT_EQ(static_cast<std::set<T>>(all).size(), set.size());
    }
    _value_t const none = const_array<T>();
    EXPECT_TRUE(none.container() && none.size() == 0);
    EXPECT_TRUE(static_cast<std::list<int>>(none).empty()) << "of any type";
    assigned = set;
    EXPECT_TRUE(static_cast<std::set<T>>(assigned) == set);
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

TEST(Sequence, TakesValuesThatReadAsItsElements) {
  _value_t value = std::vector<int>{1};
  value.push_back(_value_t(true));
  EXPECT_EQ(value.as_string(), "{1,1}");
  EXPECT_BAD_CAST(double, int, value.push_back(_value_t(1.5)));
  EXPECT_BAD_CAST(int, double, (void)static_cast<std::vector<double>>(value));
}

TEST(Sequence, ScalarCanAppendWhatItHolds) {
  std::string const text = "a text that lies on the heap";
  _value_t by_view = text, by_address = text;
  by_view.push_back(by_view[0]);
  by_address.push_back(*by_address.holder()->getp(static_cast<std::string const*>(nullptr)));
  for (std::vector<std::string> const all : {by_view, by_address})
    EXPECT_EQ(all, (std::vector<std::string>{text, text}));
}

TEST(View, WritesThroughToAScalarAndToABit) {
  _value_t scalar = 1, flags = std::vector<bool>{true, true};
  scalar[0] = 5;
  EXPECT_EQ(scalar.as_int(), 5);
  flags[1] = false;
  EXPECT_EQ(flags.as_string(), "{true,false}");
}

TEST(View, OfAConstValueRefusesToBeWritten) {
  _value_t const value = 1;
  _value_t view = value[0];
  EXPECT_BAD_CAST(int, int, view = 2);
  EXPECT_BAD_CAST(int, _value_t_data*, (void)view[0]);
  _value_t copy = view;
  copy = 2;
  EXPECT_EQ(copy.as_int(), 2) << "the copy became an owner";
  EXPECT_EQ(value.as_int(), 1);
}

TEST(View, OfAScalarHasOneIndex) {
  auto const refusal = testing::ThrowsMessage<std::out_of_range>("out of range");
  _value_t value = 1;
  _value_t const& constant = value;
  EXPECT_THAT([&] { (void)value[1]; }, refusal);
  EXPECT_THAT([&] { (void)constant[1]; }, refusal);
  EXPECT_THAT([&] { (void)value[0][1]; }, refusal);
  EXPECT_THAT([&] { (void)constant[0][7]; }, refusal);
  EXPECT_EQ(value[0][0].as_string(), constant[0][0].as_string());
}
