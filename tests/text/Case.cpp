#include "velt/text/Case.h"

#include <algorithm>

#include "TextTypes.h"
#include "velt/text/CharacterClasses.h"

using namespace std::string_literals;
using namespace std::string_view_literals;

namespace {

template <class Text>
struct Case : ::testing::Test {};

}  // namespace

TYPED_TEST_SUITE(Case, TextTypes);

TYPED_TEST(Case, ChangesLettersAndKeepsTheRest) {
  auto const source = make<TypeParam>("Az[`{@ 09\0aZ\x7f"sv);
  EXPECT_EQ(plain(strlower(source)), "az[`{@ 09\0az\x7f"sv);
  EXPECT_EQ(plain(strupper(source)), "AZ[`{@ 09\0AZ\x7f"sv);
  EXPECT_EQ(plain(source), "Az[`{@ 09\0aZ\x7f"sv);
  EXPECT_EQ(plain(strlower(make<TypeParam>(""))), "");
}

TEST(Case, WideTextKnowsEveryAlphabetAndAlsoBehindPlainLetters) {
  EXPECT_EQ(strlower(L"AΣ Москва ÄÖ Z"), L"aσ москва äö z");
  EXPECT_EQ(strupper(L"aσ москва äö z"), L"AΣ МОСКВА ÄÖ Z");
  std::wstring const eszett = L"ß";
  EXPECT_EQ(strupper(eszett), eszett) << "one character never becomes two";
}

TEST(Case, NarrowTextIsInTheSystemsCodePage) {
  if (GetACP() != 1252) GTEST_SKIP() << "needs code page 1252";
  EXPECT_EQ(strlower("\xC4\xD6\xDC\x9F"), "\xE4\xF6\xFC\xFF");
  EXPECT_EQ(strupper("\xE4\xF6\xFC\xFF"), "\xC4\xD6\xDC\x9F");
  std::string const micro = "\xB5";
  EXPECT_EQ(strupper(micro), micro) << "the capital letter is not in the code page";
}

TEST(Case, NullComStringStaysNull) {
  EXPECT_TRUE(!strupper(_bstr_t()) && !strlower(_bstr_t()));
}

// The blocks are laid out by the library and freed by the platform, which puts
// them into a cache and hands them out again.
TEST(CaseComString, BlocksOfEveryLengthSurviveBeingFreedAndUsedAgain) {
  for (unsigned length = 1; length < 300; ++length) {
    std::wstring const source(length, L'x');
    _bstr_t const text(source.c_str());
    {
      auto const upper = strupper(text);
      ASSERT_EQ(upper.length(), length);
      ASSERT_EQ(std::wstring(upper), std::wstring(length, L'X'));
    }
    BSTR const again = SysAllocStringLen(nullptr, length);
    std::fill_n(again, length, L'y');
    SysFreeString(again);
  }
  EXPECT_TRUE(HeapValidate(GetProcessHeap(), 0, nullptr));
}

TEST(CharacterClasses, HoldForAWholeTextThatIsNotEmpty) {
  constexpr struct {
    char const* text;
    bool digit, xdigit, alpha, alnum;
  } rows[] = {
      {"", false, false, false, false}, {"123", true, true, false, true},
      {"12a", false, true, false, true}, {"1aF", false, true, false, true},
      {"fg", false, false, true, true},  {"Zz", false, false, true, true},
      {"z9", false, false, false, true}, {"a b", false, false, false, false},
      {"-1", false, false, false, false},
  };
  for (auto const& row : rows) {
    std::string const text = row.text;
    EXPECT_EQ(isdigit(text), row.digit) << text;
    EXPECT_EQ(isxdigit(text), row.xdigit) << text;
    EXPECT_EQ(isalpha(text), row.alpha) << text;
    EXPECT_EQ(isalnum(text), row.alnum) << text;
  }
  EXPECT_FALSE(isdigit("12\0"s)) << "a NUL is a character like any other";
}

TEST(CharacterClasses, KnowTheLettersOfTheSystemsCodePage) {
  if (GetACP() != 1252) GTEST_SKIP() << "needs code page 1252";
  EXPECT_TRUE(isalpha("\xC4\xDF\xFF"s));
  EXPECT_FALSE(isalnum("\xA9"s));
  EXPECT_TRUE(isdigit("\xB2"s));
}

TEST(ComSupport, NarrowTextBecomesAComStringAndBackWithItsNuls) {
  if (GetACP() != 1252) GTEST_SKIP() << "needs code page 1252";
  EXPECT_STREQ(_bstr_t("a\x80"), L"a€");
  EXPECT_FALSE(!_bstr_t(""));
  EXPECT_EQ(std::string(make<_bstr_t>("a\0\x7f"sv), 4), "a\0\x7f\0"sv);
  EXPECT_EQ(_com_util::ConvertStringToBSTR(nullptr), nullptr);
  EXPECT_EQ(_com_util::ConvertBSTRToString(nullptr), nullptr);
}
