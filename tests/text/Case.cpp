#include "velt/text/Case.h"

#include <algorithm>
#include <locale>

#include "TextTypes.h"
#include "velt/text/CharacterClasses.h"
#include "velt/text/UserLocaleInternal.h"

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

TEST(Case, GlobalLocaleHasNoEffect) {
  struct Deaf : std::ctype<char> {
    char const* do_toupper(char*, char const* last) const override { return last; }
  };
  auto const before = std::locale::global(std::locale(std::locale(), new Deaf));
  EXPECT_EQ(strupper("abc"), "ABC");
  std::locale::global(before);
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

TEST(UserLocale, AgreesWithTheClassicLocaleAboutPlainCharacters) {
  auto const& narrow = std::use_facet<std::ctype<char>>(velt::detail::user_locale());
  auto const& wide = std::use_facet<std::ctype<wchar_t>>(velt::detail::user_locale());
  auto const& classic = std::use_facet<std::ctype<char>>(std::locale::classic());
  using base = std::ctype_base;
  for (int code = 0; code < 128; ++code) {
    auto const letter = static_cast<char>(code);
    auto const wide_letter = static_cast<wchar_t>(code);
    for (auto const mask : {base::upper, base::lower, base::alpha, base::digit, base::xdigit,
                            base::space, base::print, base::cntrl, base::punct, base::blank}) {
      bool const expected = classic.is(mask, letter);
      EXPECT_EQ(narrow.is(mask, letter), expected) << code << " of class " << mask;
      EXPECT_EQ(wide.is(mask, wide_letter), expected) << code << " of class " << mask;
    }
    EXPECT_EQ(narrow.tolower(letter), classic.tolower(letter)) << code;
    EXPECT_EQ(narrow.toupper(letter), classic.toupper(letter)) << code;
    EXPECT_EQ(wide.tolower(wide_letter), classic.tolower(letter)) << code;
    EXPECT_EQ(wide.toupper(wide_letter), classic.toupper(letter)) << code;
  }
}
