#include "velt/text/Trim.h"

#include "TextTypes.h"

using namespace std::string_view_literals;

namespace {

template <class Text>
struct Trim : ::testing::Test {};

}  // namespace

TYPED_TEST_SUITE(Trim, TextTypes);

TYPED_TEST(Trim, RemovesTheCharactersOfTheSetAtTheEndsAndNowhereElse) {
  constexpr struct {
    std::string_view source, set, both, left, right;
  } rows[] = {
      {"  a b ", " ", "a b", "a b ", "  a b"},
      {"xyabxyx", "yx", "ab", "abxyx", "xyab"},
      {"a", " ", "a", "a", "a"},
      {"", " ", "", "", ""},
      {"   ", " ", "", "", ""},
      {" ab ", "", " ab ", " ab ", " ab "},
      {"", "", "", "", ""},
      {" a\0b "sv, " ", "a\0b"sv, "a\0b "sv, " a\0b"sv},
      {"\0 a"sv, " ", "\0 a"sv, "\0 a"sv, "\0 a"sv},
  };
  for (auto const& row : rows) {
    auto const source = make<TypeParam>(row.source);
    auto const set = make_set<TypeParam>(row.set);
    EXPECT_EQ(plain(trim(source, set.c_str())), row.both);
    EXPECT_EQ(plain(triml(source, set.c_str())), row.left);
    EXPECT_EQ(plain(trimr(source, set.c_str())), row.right);
    EXPECT_EQ(plain(source), row.source);
  }
}

TEST(TrimComString, EmptyResultIsAllocatedEvenOfANullString) {
  for (auto const& source : {_bstr_t(), _bstr_t(L""), _bstr_t(L"  ")}) {
    EXPECT_FALSE(!trim(source, L" "));
    EXPECT_FALSE(!triml(source, L" "));
    EXPECT_FALSE(!trimr(source, L" "));
    EXPECT_EQ(trim(source, L" ").length(), 0u);
  }
}
