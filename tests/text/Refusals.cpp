// Built with the sources that ask for the code page in the program itself, so that
// the platform's conversion can be replaced by one that refuses what every platform
// may refuse: from the first table of characters on, UTF-8 is the system's code page.
#include <gtest/gtest.h>
#include <windows.h>

#include "tests/support/Expect.h"
#include "velt/text/Encoding.h"
#include "velt/text/UserLocaleInternal.h"

extern "C" {

decltype(&GetACP) __wrap___imp_GetACP = []() -> UINT { return CP_UTF8; };

extern decltype(&MultiByteToWideChar) __real___imp_MultiByteToWideChar;
decltype(&MultiByteToWideChar) __wrap___imp_MultiByteToWideChar =
    [](UINT page, DWORD flags, char const* text, int length, wchar_t* wide, int size) {
      return __real___imp_MultiByteToWideChar(page == CP_ACP ? CP_UTF8 : page, flags, text, length,
                                              wide, size);
    };

extern decltype(&WideCharToMultiByte) __real___imp_WideCharToMultiByte;
decltype(&WideCharToMultiByte) __wrap___imp_WideCharToMultiByte =
    [](UINT page, DWORD flags, wchar_t const* text, int length, char* narrow, int size,
       char const* fallback, BOOL* replaced) {
      if (flags || fallback || replaced) return 0;
      if (length == 1 << 30) return -(1 << 30);  // three bytes for each character
      return __real___imp_WideCharToMultiByte(page == CP_ACP ? CP_UTF8 : page, flags, text, length,
                                              narrow, size, fallback, replaced);
    };

}  // extern "C"

TEST(Refusals, Utf8AsTheSystemsCodePageHasCasesAndClasses) {
  auto const& narrow = velt::detail::user_ctype<char>();
  std::string text = "aBz \xC3\xA4";
  narrow.toupper(text.data(), text.data() + text.size());
  EXPECT_EQ(text, "ABZ \xC3\xA4") << "a byte that is no character by itself stays";
  EXPECT_EQ(narrow.tolower('Q'), 'q');
  EXPECT_TRUE(narrow.is(std::ctype_base::alpha, 'x'));
  EXPECT_FALSE(narrow.is(std::ctype_base::alpha, '\xC3'));
}

TEST(Refusals, NarrowTextOfTwoGigabytesIsASystemError) {
  EXPECT_EQ(velt_test::system_code([] { as_string({L"", 1 << 30}); }), ERROR_INVALID_PARAMETER);
}
