// Expects a conversion of a value to fail with given types.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <typeinfo>

#include "velt/base/TypeName.h"
#include "velt/exceptions/EGeneric.h"

namespace velt_test {

inline ::testing::AssertionResult throws_bad_cast(std::type_info const& from,
                                                  std::type_info const& to,
                                                  std::function<void()> const& action) {
  try {
    action();
  } catch (EBadCastException const& error) {
    std::string const found_from = error["From"], found_to = error["To"];
    auto const expected_from = velt::detail::readable_name(from);
    auto const expected_to = velt::detail::readable_name(to);
    if (found_from == expected_from && found_to == expected_to)
      return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "threw " << found_from << " to " << found_to
                                         << " instead of " << expected_from << " to "
                                         << expected_to;
  }
  return ::testing::AssertionFailure() << "did not throw";
}

}  // namespace velt_test

// The statement throws EBadCastException from the one type to the other.
#define EXPECT_BAD_CAST(FROM, TO, STATEMENT) \
  EXPECT_TRUE(::velt_test::throws_bad_cast(typeid(FROM), typeid(TO), [&] { STATEMENT; }))
