#include "velt/exceptions/Condition.h"

#include <gtest/gtest.h>

#include "velt/exceptions/EGeneric.h"

namespace {

template <class Action>
EGeneric failure_of(Action&& action) {
  try {
    action();
  } catch (EGeneric const& error) {
    return error;
  }
  return EGeneric();
}

namespace shop {

template <class T>
struct Shelf {
  void check(T const& item, int (*)(int)) const { VELT_CONDITION(item == T()); }
  bool operator()(T const& item) const {
    VELT_CONDITION(item == T());
    return true;
  }
  operator std::string() const {
    VELT_CONDITION(!"never");
    return std::string();
  }
  bool operator<(Shelf const&) const {
    VELT_CONDITION(!"never");
    return true;
  }
};

std::pair<int, int>* free_function() {
  VELT_CONDITION(!"never");
  return nullptr;
}

}  // namespace shop

std::string function_of(EGeneric const& error) {
  auto text = error["SourceFunction"].as_string();
  std::string const anonymous = "{anonymous}::";
  if (text.starts_with(anonymous)) text.erase(0, anonymous.size());
  return text;
}

}  // namespace

TEST(Condition, FailureTellsWhatWhereAndInWhichFunction) {
  int const line = __LINE__ + 1;
  auto const error = failure_of([] { shop::Shelf<int>().check(1, nullptr); });
  ASSERT_EQ(error.values().size(), 5u);
  std::string const text = error.what();
  EXPECT_TRUE(text.starts_with("Text: Condition not meet\nCondition: item == T()\n"
                               "SourceFile: Condition.cpp\nSourceLine: "))
      << text;
  EXPECT_LT(error["SourceLine"].get<int>(), line);
  EXPECT_EQ(function_of(error), "shop::Shelf<T>::check");

  int evaluations = 0;
  VELT_CONDITION(++evaluations == 1);
  EXPECT_EQ(evaluations, 1);
}

TEST(Condition, NamesFunctionsOfEveryForm) {
  EXPECT_EQ(function_of(failure_of([] { shop::free_function(); })), "shop::free_function");
  EXPECT_EQ(function_of(failure_of([] { shop::Shelf<int>()(1); })),
            "shop::Shelf<T>::operator()");
  EXPECT_EQ(function_of(failure_of([] { (void)(shop::Shelf<int>() < shop::Shelf<int>()); })),
            "shop::Shelf<T>::operator<");
  EXPECT_EQ(function_of(failure_of([] { std::string(shop::Shelf<int>()); })),
            "shop::Shelf<T>::operator std::string");
}
