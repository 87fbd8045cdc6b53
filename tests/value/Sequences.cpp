#include <gmock/gmock.h>

#include <stdexcept>

#include "tests/support/ElementTypes.h"
#include "tests/support/Expect.h"

using namespace velt_test;

TEST(Sequence, GoesInAndComesOutOfEveryCollection) {
  for_each_element_type([]<class T>() {
    SCOPED_TRACE(element<T>::name);
    auto const sample = element<T>::sample();
    std::vector<T> const vector{sample, T(), sample};
    std::list<T> const list(vector.begin(), vector.end());
    std::set<T> const set(vector.begin(), vector.end());
    T const array[] = {sample, T(), sample};
    for (_value_t const& value : {_value_t(vector), _value_t(list), _value_t(const_array<T>(array))}) {
      EXPECT_TRUE(value.container());
      EXPECT_EQ(value.object(), velt::detail::is_object<T>);
      EXPECT_EQ(value.size(), 3u);
      EXPECT_EQ(value.type(), typeid(T));
      EXPECT_TRUE(static_cast<std::vector<T>>(value) == vector);
      EXPECT_TRUE(static_cast<std::list<T>>(value) == list);
      EXPECT_EQ(static_cast<std::set<T>>(value).size(), set.size());
    }
    _value_t const none = const_array<T>();
    EXPECT_TRUE(none.container() && none.size() == 0);
    EXPECT_TRUE(static_cast<std::list<int>>(none).empty()) << "of any type";
    _value_t assigned = "anything";
    assigned = set;
    EXPECT_TRUE(static_cast<std::set<T>>(assigned) == set);
  });
}

TEST(Sequence, GrowsFromNothingThroughAScalar) {
  _value_t value;
  value.push_back(1);
  EXPECT_FALSE(value.container());
  value.push_back(2);
  value.push_back(3);
  EXPECT_TRUE(value.container());
  EXPECT_EQ(value.as_string(), "{1,2,3}");
  value = 9;
  EXPECT_EQ(value.as_string(), "{9,2,3}") << "a scalar goes to element 0";

  EXPECT_BAD_CAST(double, int, value.push_back(1.5));
  value.push_back(_value_t(true));
  EXPECT_EQ(value.as_string(), "{9,2,3,1}") << "a bool reads strictly as an int";
  EXPECT_BAD_CAST(double, int, value.push_back(_value_t(1.5)));
  _value_t const shared = value;
  value.push_back(value);
  EXPECT_EQ(value.as_string(), "{9,2,3,1,9}");
  EXPECT_EQ(shared.as_string(), "{9,2,3,1}");
  EXPECT_BAD_CAST(int, double, (void)static_cast<std::vector<double>>(shared));
}

TEST(Sequence, ScalarCanAppendWhatItHolds) {
  std::string const text = "a text that lies on the heap";
  _value_t by_view = text, by_address = text;
  by_view.push_back(by_view[0]);
  by_address.push_back(*by_address.holder()->getp(static_cast<std::string const*>(nullptr)));
  for (std::vector<std::string> const all : {by_view, by_address})
    EXPECT_EQ(all, (std::vector<std::string>{text, text}));
}

TEST(View, WritesThroughEvenIntoSharedContent) {
  _value_t scalar = 1;
  scalar[0] = 5;
  EXPECT_EQ(scalar.as_int(), 5);
  _value_t numbers = std::vector<int>{1, 2, 3}, flags = std::vector<bool>{true, true};
  _value_t const shared = numbers;
  numbers[1] = 9;
  numbers[2] = true;
  EXPECT_EQ(shared.as_string(), "{1,9,1}") << "under the element's type";
  flags[1] = false;
  EXPECT_EQ(flags.as_string(), "{true,false}");
}

TEST(View, CopyOfAViewDetachesFromTheElement) {
  _value_t value = 1;
  _value_t view = value[0];
  _value_t copy = view;
  copy = 3;
  EXPECT_EQ(copy.as_int(), 3);
  EXPECT_EQ(view.as_int(), 1);
  view = 4;
  EXPECT_EQ(value.as_int(), 4) << "alone again, the view writes through";
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
