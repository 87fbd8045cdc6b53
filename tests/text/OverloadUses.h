// Uses of every text function whose name is the platform's too, and of the
// _bstr_t forms beside literals. Included by two sources, which differ in the
// order of the headers.
#pragma once

#include <gtest/gtest.h>

#include <concepts>

namespace {

void use_names_of_the_platform() {
  EXPECT_TRUE(isdigit('7') && isxdigit('f') && isalpha('x') && isalnum('x'));
  EXPECT_FALSE(isdigit(0));
  EXPECT_TRUE(isdigit(std::string("7")) && isxdigit("f") && isalpha("x") && isalnum("x7"));
  EXPECT_TRUE(std::isdigit('7', std::locale::classic()));

  char digits[20];
  EXPECT_STREQ(itoa(5, digits, 10), itoa(5).c_str());
  EXPECT_STREQ(ltoa(5, digits, 10), ltoa(5).c_str());
  EXPECT_EQ(atoi("12"), atoi(std::string("12")));
  EXPECT_EQ(atol("12"), atol(std::string("12")));
}

void use_com_strings() {
  _bstr_t const text("aBc");
  static_assert(std::same_as<decltype(strlower(text)), _bstr_t>);
  static_assert(std::same_as<decltype(trim(text, L" ")), _bstr_t>);
  static_assert(std::same_as<decltype(strlower("ABC")), std::string>);
  static_assert(std::same_as<decltype(strlower(L"ABC")), std::wstring>);
  static_assert(std::same_as<decltype(triml("x", " ")), std::string>);
  static_assert(std::same_as<decltype(trimr(L"x", L" ")), std::wstring>);

  EXPECT_STREQ(strupper(text), L"ABC");
  EXPECT_STREQ(trim(strlower(_bstr_t(L" A ")), L" "), L"a");
  EXPECT_STREQ(static_cast<char const*>(format_bstr(L"%d", 7)), "7");
}

}  // namespace
