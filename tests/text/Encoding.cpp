// Text of the platform's kinds: in code pages, as COM strings and by formats.
#include "velt/text/Encoding.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <new>
#include <stdexcept>
#include <utility>

#include "TextTypes.h"
#include "tests/support/Expect.h"
#include "tests/support/Imports.h"
#include "velt/text/Case.h"
#include "velt/text/Format.h"
#include "velt/text/Trim.h"

using namespace std::string_view_literals;
using testing::ThrowsMessage;
using velt_test::Replacement;
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
  Replacement const wraps{VELT_CALL(WideCharToMultiByte),
                                     [](auto...) { return -(1 << 30); }};
  EXPECT_EQ(system_code([] { as_string({L"", 1 << 30}); }), ERROR_INVALID_PARAMETER);
}

TEST(ComString, IsNullOnlyIfItsSourceWasAndNoneIfItIsTrimmed) {
  EXPECT_TRUE(!strupper(_bstr_t()) && !strlower(_bstr_t()));
  for (auto const& source : {_bstr_t(), _bstr_t(L""), _bstr_t(L"  ")})
    EXPECT_FALSE(!trim(source, L" ") || !triml(source, L" ") || !trimr(source, L" "));
}

// The blocks are laid out by the library and freed by the platform, which puts
// them into a cache and hands them out again.
TEST(ComString, BlocksOfEveryLengthSurviveBeingFreedAndUsedAgain) {
  for (unsigned length = 1; length < 300; ++length) {
    std::wstring const source(length, L'x');
    ASSERT_EQ(std::wstring(strupper(_bstr_t(source.c_str()))), std::wstring(length, L'X'));
    BSTR const again = SysAllocStringLen(nullptr, length);
    std::fill_n(again, length, L'y');
    SysFreeString(again);
  }
  EXPECT_TRUE(HeapValidate(GetProcessHeap(), 0, nullptr));
}

TEST(ComString, ComesFromNarrowTextAndGoesBackWithItsNuls) {
  if (GetACP() != 1252) GTEST_SKIP() << "needs code page 1252";
  EXPECT_STREQ(_bstr_t("a\x80"), L"a€");
  EXPECT_FALSE(!_bstr_t(""));
  EXPECT_EQ(std::string(make<_bstr_t>("a\0\x7f"sv), 4), "a\0\x7f\0"sv);
  EXPECT_EQ(_com_util::ConvertStringToBSTR(nullptr), nullptr);
  EXPECT_EQ(_com_util::ConvertBSTRToString(nullptr), nullptr);
}

TEST(ComString, WithoutMemoryThrowsTheComError) {
  bool fails_once = false;
  Replacement const records{velt_test::Call<void* (*)(std::size_t)>{"_Znwy"},
                            [&](auto platform, std::size_t size) {
                              if (std::exchange(fails_once, false)) throw std::bad_alloc();
                              return platform(size);
                            }};
  auto const expect_no_memory = [&](auto operation) {
    auto const is_refused = testing::Property(&_com_error::Error, E_OUTOFMEMORY);
    EXPECT_THAT([&] { fails_once = true; operation(); }, testing::Throws<_com_error>(is_refused));
  };
  _bstr_t const text(L" aBc ");
  expect_no_memory([&] { trim(text, L" "); });
  expect_no_memory([&] { strlower(text); });
  expect_no_memory([] { format_bstr(L"%d", 1); });
}

#ifdef _UCRT
#define EXPONENT "-01"
#else
#define EXPONENT "-001"
#endif

TEST(Format, FollowsTheFormatsOfTheRunTime) {
  EXPECT_EQ(format_string("%s=%d %ls %I64x", "a", -1, L"w", 1ll << 40), "a=-1 w 10000000000");
  EXPECT_EQ(format_wstring(L"%s=%d %hs", L"a", -1, "n"), L"a=-1 n");
  EXPECT_EQ(plain(format_bstr(L"%s=%d %e", L"a", -1, 0.5)), "a=-1 5.000000e" EXPONENT);
  EXPECT_EQ(format_string(std::string("100%%")), "100%");
  EXPECT_EQ(format_string("a%cb", 0), std::string("a\0b", 3));
  EXPECT_EQ(plain(format_bstr(L"a%cb", 0)), "a");
  EXPECT_FALSE(!format_bstr(L"")) << "an empty result is a string all the same";
}

TEST(Format, Holds2047CharactersAndLongerTextThrowsButComStringsAreCut) {
  EXPECT_EQ(format_string("%*d", 2047, 7).size(), 2047u);
  EXPECT_EQ(format_wstring(L"%*d", 2047, 7).size(), 2047u);
  for (int const length : {2047, 2048, 10'000})
    EXPECT_EQ(plain(format_bstr(L"%-*d", length, 7)), "7" + std::string(2046, ' '));
  auto const too_long = ThrowsMessage<std::length_error>("string too long");
  for (int const length : {2048, 10'000}) {
    EXPECT_THAT([=] { format_string("%*d", length, 7); }, too_long);
    EXPECT_THAT([=] { format_wstring(L"%*d", length, 7); }, too_long);
  }
}

TEST(Format, RefusesAFormatWithoutATerminatorBeforeAnythingIsWritten) {
  auto const refusal = ThrowsMessage<std::logic_error>("Invalid _data of const_string for c_str()");
  int written = -1;
  basic_const_string<char> const narrow("ab%nc", 4);
  basic_const_string<wchar_t> const wide(L"ab%nc", 4);
  EXPECT_THAT([&] { format_string(narrow, &written); }, refusal);
  EXPECT_THAT([&] { format_wstring(wide, &written); }, refusal);
  EXPECT_THAT([&] { format_bstr(wide, &written); }, refusal);
  EXPECT_EQ(written, -1);
}
