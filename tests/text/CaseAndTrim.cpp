#include <ctype.h>

#include <locale>

#include "TextTypes.h"
#include "velt/text/Case.h"
#include "velt/text/CharacterClasses.h"
#include "velt/text/Trim.h"

using namespace std::string_literals;
using namespace std::string_view_literals;

namespace {

template <class>
struct Text : ::testing::Test {};

}  // namespace

TYPED_TEST_SUITE(Text, TextTypes);

TYPED_TEST(Text, ChangesItsLettersAndKeepsTheRest) {
  auto const source = make<TypeParam>("Az[`{@ 09\0aZ\x7f"sv);
  EXPECT_EQ(plain(strlower(source)), "az[`{@ 09\0az\x7f"sv);
  EXPECT_EQ(plain(strupper(source)), "AZ[`{@ 09\0AZ\x7f"sv);
  EXPECT_EQ(plain(source), "Az[`{@ 09\0aZ\x7f"sv);
  EXPECT_EQ(plain(strlower(make<TypeParam>(""))), "");
}

TYPED_TEST(Text, IsTrimmedOfTheCharactersOfTheSetAtItsEndsAndNowhereElse) {
  constexpr struct {
    std::string_view source, set, both, left, right;
  } rows[] = {
      {"  a b ", " ", "a b", "a b ", "  a b"},
      {"xyabxyx", "yx", "ab", "abxyx", "xyab"},
      {"", " ", "", "", ""},
      {"   ", " ", "", "", ""},
      {" ab ", "", " ab ", " ab ", " ab "},
      {" a\0b "sv, " ", "a\0b"sv, "a\0b "sv, " a\0b"sv},
      {"\0 a"sv, " ", "\0 a"sv, "\0 a"sv, "\0 a"sv},
  };
  for (auto const& row : rows) {
    auto const source = make<TypeParam>(row.source);
    auto const set = make_set<TypeParam>(row.set);
    EXPECT_EQ(plain(trim(source, set.c_str())), row.both);
    EXPECT_EQ(plain(triml(source, set.c_str())), row.left);
    EXPECT_EQ(plain(trimr(source, set.c_str())), row.right);
  }
}

static_assert(std::same_as<decltype(strlower("A")), std::string>);
static_assert(std::same_as<decltype(strlower(L"A")), std::wstring>);
static_assert(std::same_as<decltype(trim(L"A", L" ")), std::wstring>);

TEST(Case, WideTextKnowsEveryAlphabetAndAlsoBehindPlainLetters) {
  EXPECT_EQ(strlower(L"AΣ Москва ÄÖ Z"), L"aσ москва äö z");
  EXPECT_EQ(strupper(L"aσ москва äö zß"), L"AΣ МОСКВА ÄÖ Zß");
}

TEST(Case, NarrowTextIsInTheSystemsCodePage) {
  if (GetACP() != 1252) GTEST_SKIP() << "needs code page 1252";
  EXPECT_EQ(strlower("\xC4\xD6\xDC\x9F"), "\xE4\xF6\xFC\xFF");
  EXPECT_EQ(strupper("\xE4\xF6\xFC\xFF\xB5"), "\xC4\xD6\xDC\x9F\xB5") << "no capital micro";
  EXPECT_TRUE(isalpha("\xC4\xDF\xFF"s) && isdigit("\xB2"s) && !isalnum("\xA9"s));
}

TEST(CharacterClasses, HoldForAWholeTextThatIsNotEmpty) {
  for (auto const& text : {""s, "a b"s, "-1"s, "12\0"s})
    EXPECT_FALSE(isdigit(text) || isxdigit(text) || isalpha(text) || isalnum(text)) << text;
  EXPECT_TRUE(isdigit("123"s) && !isdigit("12a"s) && isxdigit("12a"s) && !isxdigit("fg"s));
  EXPECT_TRUE(isalpha("fg"s) && !isalpha("z9"s) && isalnum("z9"s));
  EXPECT_TRUE(isdigit('7') && isxdigit('f') && !isalpha('7') && isalnum('x') && isalpha("x"));
  EXPECT_TRUE(std::isdigit('7', std::locale::classic()));
}
