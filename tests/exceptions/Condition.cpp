#include "velt/exceptions/Condition.h"

#include <gtest/gtest.h>

#include "tests/support/Expect.h"

namespace shop {

template <class T>
struct Shelf {
  void check(T const& item, int (*)(int)) const { VELT_CONDITION(item == T()); }
  bool operator()(T const& item) const {
    VELT_CONDITION(item == T());
    return true;
  }
};

static std::pair<int, int>* free_function() {
  VELT_CONDITION(!"never");
  return nullptr;
}

}  // namespace shop

TEST(Condition, FailureTellsWhatWhereAndInWhichFunctionOfAnyForm) {
  shop::Shelf<int> const shelf;
  struct {
    std::function<void()> fails;
    std::string condition, line, function;
  } const rows[] = {
      {[=] { shelf.check(1, nullptr); }, "item == T()", "11", "Shelf<T>::check"},
      {[=] { shelf(1); }, "item == T()", "13", "Shelf<T>::operator()"},
      {[] { shop::free_function(); }, "!\"never\"", "19", "free_function"},
  };
  for (auto const& row : rows)
    EXPECT_EQ(velt_test::values_of(row.fails),
              "Text=Condition not meet;Condition=" + row.condition +
                  ";SourceFile=Condition.cpp;SourceLine=" + row.line +
                  ";SourceFunction=shop::" + row.function);
  int evaluations = 0;
  VELT_CONDITION(++evaluations == 1);
  EXPECT_EQ(evaluations, 1);
}
