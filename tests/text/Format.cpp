#include "velt/text/Format.h"

#include <gmock/gmock.h>

#include <stdexcept>

#include "TextTypes.h"

using testing::ThrowsMessage;

TEST(Format, FollowsTheFormatsOfTheRunTime) {
  EXPECT_EQ(format_string("%s=%d %ls %I64x", "a", -1, L"w", 1ll << 40), "a=-1 w 10000000000");
  EXPECT_EQ(format_wstring(L"%s=%d %hs", L"a", -1, "n"), L"a=-1 n");
  EXPECT_EQ(plain(format_bstr(L"%s=%d %e", L"a", -1, 0.5)), "a=-1 5.000000e-001");
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
