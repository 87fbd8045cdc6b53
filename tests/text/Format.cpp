#include "velt/text/Format.h"

#include <gtest/gtest.h>

#include <comdef.h>

#include <stdexcept>

namespace {

std::wstring content(_bstr_t const& text) { return std::wstring(text, text.length()); }

template <class Exception, class Statement>
std::string message_of(Statement statement) {
  try {
    statement();
  } catch (Exception const& exception) {
    return exception.what();
  }
  return "nothing was thrown";
}

}  // namespace

TEST(Format, FollowsTheFormatsOfTheRunTime) {
  EXPECT_EQ(format_string("%s=%d %ls %I64x", "a", -1, L"w", 1ll << 40), "a=-1 w 10000000000");
  EXPECT_EQ(format_wstring(L"%s=%d %hs", L"a", -1, "n"), L"a=-1 n");
  EXPECT_EQ(content(format_bstr(L"%s=%d %e", L"a", -1, 0.5)), L"a=-1 5.000000e-001");
  EXPECT_EQ(format_string(std::string("100%%")), "100%");
  EXPECT_EQ(format_string("a%cb", 0), std::string("a\0b", 3));
  EXPECT_EQ(content(format_bstr(L"a%cb", 0)), L"a");
  EXPECT_FALSE(!format_bstr(L"")) << "an empty result is a string all the same";
}

TEST(Format, Holds2047Characters) {
  EXPECT_EQ(format_string("%*d", 2047, 7).size(), 2047u);
  EXPECT_EQ(format_wstring(L"%*d", 2047, 7).size(), 2047u);
  EXPECT_EQ(format_bstr(L"%*d", 2047, 7).length(), 2047u);
}

TEST(Format, LongerTextThrowsButComStringsAreCut) {
  for (int const length : {2048, 10'000}) {
    std::string const digits(length, '7');
    std::wstring const wide(digits.begin(), digits.end());
    EXPECT_EQ(message_of<std::length_error>([&] { format_string("%s", digits.c_str()); }),
              "string too long");
    EXPECT_EQ(message_of<std::length_error>([&] { format_wstring(L"%s", wide.c_str()); }),
              "string too long");
    EXPECT_EQ(content(format_bstr(L"%s", wide.c_str())), wide.substr(0, 2047));
  }
}

TEST(Format, RefusesAFormatWithoutATerminatorBeforeAnythingIsWritten) {
  constexpr auto text = "Invalid _data of const_string for c_str()";
  int written = -1;
  basic_const_string<char> const narrow("ab%nc", 4);
  basic_const_string<wchar_t> const wide(L"ab%nc", 4);
  EXPECT_EQ(message_of<std::logic_error>([&] { format_string(narrow, &written); }), text);
  EXPECT_EQ(message_of<std::logic_error>([&] { format_wstring(wide, &written); }), text);
  EXPECT_EQ(message_of<std::logic_error>([&] { format_bstr(wide, &written); }), text);
  EXPECT_EQ(written, -1);
}
