#include "velt/text/Encoding.h"

#include <gtest/gtest.h>

#include <windows.h>

#include "tests/support/Expect.h"
#include "tests/support/Imports.h"

using velt_test::system_code;

namespace {

constexpr int utf7 = 65000;
constexpr int utf8 = 65001;
constexpr int western = 1252;
constexpr int unknown = 4711;

}  // namespace

TEST(Encoding, ConvertsBetweenWideTextAndACodePage) {
  std::wstring const wide = L"aä€Ж\U0001F600";
  std::string const narrow = "a\xC3\xA4\xE2\x82\xAC\xD0\x96\xF0\x9F\x98\x80";
  EXPECT_EQ(as_string(wide, utf8), narrow);
  EXPECT_EQ(as_wstring(narrow, utf8), wide);
  EXPECT_EQ(as_string(L"ä€Ж", western), "\xE4\x80?") << "what the code page lacks";
  EXPECT_EQ(as_wstring("\xE4\x80", western), L"ä€");
  EXPECT_EQ(as_string(basic_const_string<wchar_t>(L"a\0bc", 3)), std::string("a\0b", 3));
  EXPECT_EQ(as_wstring(basic_const_string<char>("a\0bc", 3)), std::wstring(L"a\0b", 3));
}

TEST(Encoding, RefusalsThrowTheSystemsErrorAndEmptyTextHasNone) {
  EXPECT_EQ(as_string(basic_const_string<wchar_t>(), unknown), "");
  EXPECT_EQ(as_wstring("", unknown), L"");
  EXPECT_EQ(system_code([] { as_string(L"a", unknown); }), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(system_code([] { as_wstring("a", unknown); }), ERROR_INVALID_PARAMETER);
  SetLastError(ERROR_ACCESS_DENIED);  // of before: an empty result leaves no code
  EXPECT_EQ(system_code([] { as_wstring("+", utf7); }), ERROR_NO_UNICODE_TRANSLATION);

  // Three bytes for each of 2^30 characters.
  velt_test::Replacement const wraps{VELT_CALL(WideCharToMultiByte),
                                     [](auto...) { return -(1 << 30); }};
  EXPECT_EQ(system_code([] { as_string({L"", 1 << 30}); }), ERROR_INVALID_PARAMETER);
}
