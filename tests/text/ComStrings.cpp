#include <algorithm>
#include <new>

#include "TextTypes.h"
#include "tests/support/Imports.h"
#include "velt/text/Case.h"
#include "velt/text/Format.h"
#include "velt/text/Trim.h"

using namespace std::string_view_literals;
using velt_test::Replacement;

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
  bool fails = false;
  Replacement const records{velt_test::Call<void* (*)(std::size_t)>{"_Znwy"},
                            [&](auto platform, std::size_t size) {
                              return fails ? throw std::bad_alloc() : platform(size);
                            }};
  auto const error_of = [&](auto operation) {
    fails = true;
    try {
      operation();
    } catch (_com_error const& error) {
      fails = false;
      return error.Error();
    }
    return S_OK;
  };
  _bstr_t const text(L" aBc ");
  EXPECT_EQ(error_of([&] { trim(text, L" "); }), E_OUTOFMEMORY);
  EXPECT_EQ(error_of([&] { strlower(text); }), E_OUTOFMEMORY);
  EXPECT_EQ(error_of([] { format_bstr(L"%d", 1); }), E_OUTOFMEMORY);
}
