// What a statement throws.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <typeinfo>

#include "velt/base/TypeName.h"
#include "velt/exceptions/ExceptionFamily.h"

namespace velt_test {

// The values that the thrower gave, "Text=Bad cast;From=int;To=bool", without those
// that the diagnostics add; what() of an exception that is none of the class;
// "nothing" if there is none.
template <class Exception = EGeneric, class Statement>
std::string values_of(Statement const& statement) {
  try {
    statement();
  } catch (Exception const& error) {
    std::string text;
    for (auto const& [name, value] : error.values())
      if (name != "MiniDump" && name != "ModuleName" && name != "AddressName" && name != "Stack")
        text += (text.empty() ? "" : ";") + name + "=" + value.as_string();
    return text;
  } catch (std::exception const& error) {
    return error.what();
  }
  return "nothing";
}

// The "Code" of the ESystemException that the statement throws, or -1 if it
// throws none.
template <class Statement>
int system_code(Statement const& statement) {
  try {
    statement();
  } catch (ESystemException const& error) {
    return error["Code"].as_int();
  }
  return -1;
}

// Those of a conversion that is refused.
inline std::string bad_cast(std::type_info const& from, std::type_info const& to) {
  return "Text=Bad cast;From=" + velt::detail::readable_name(from) +
         ";To=" + velt::detail::readable_name(to);
}

}  // namespace velt_test

// The statement throws EBadCastException from the one type to the other.
#define EXPECT_BAD_CAST(FROM, TO, STATEMENT)                               \
  EXPECT_EQ(::velt_test::values_of<EBadCastException>([&] { STATEMENT; }), \
            ::velt_test::bad_cast(typeid(FROM), typeid(TO)))
