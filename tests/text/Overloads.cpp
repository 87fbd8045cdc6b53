// Text functions whose names are the platform's too, and the _bstr_t forms beside
// literals.
#include <ctype.h>
#include <stdlib.h>

#include <locale>

#include "TextTypes.h"
#include "velt/text/Case.h"
#include "velt/text/CharacterClasses.h"
#include "velt/text/Format.h"
#include "velt/text/Numbers.h"
#include "velt/text/Trim.h"

TEST(Overloads, StandBesideThoseOfThePlatform) {
  EXPECT_TRUE(isdigit('7') && isxdigit('f') && isalpha('x') && isalnum('x') && !isdigit(0));
  EXPECT_TRUE(isdigit(std::string("7")) && isxdigit("f") && isalpha("x") && isalnum("x7"));
  EXPECT_TRUE(std::isdigit('7', std::locale::classic()));

  char digits[20];
  EXPECT_STREQ(itoa(5, digits, 10), itoa(5).c_str());
  EXPECT_STREQ(ltoa(5, digits, 10), ltoa(5).c_str());
  EXPECT_EQ(atoi("12") + atol("12"), atoi(std::string("12")) + atol(std::string("12")));
}

TEST(Overloads, OfComStringsLeaveLiteralsAlone) {
  _bstr_t const text("aBc");
  static_assert(std::same_as<decltype(strlower(text)), _bstr_t>);
  static_assert(std::same_as<decltype(trim(text, L" ")), _bstr_t>);
  static_assert(std::same_as<decltype(strlower("ABC")), std::string>);
  static_assert(std::same_as<decltype(trimr(L"x", L" ")), std::wstring>);
  EXPECT_STREQ(static_cast<char const*>(format_bstr(L"%d", 7)), "7");
}
