#include "velt/text/Splitting.h"

#include <random>
#include <sstream>

#include "TextTypes.h"

using namespace std::string_view_literals;

namespace {

using words = std::vector<std::string_view>;
using strings = std::vector<std::string>;

template <class Container>
strings divide(std::string_view source, std::string_view separators) {
  using Text = typename Container::value_type;
  Container found = {make<Text>("of before")};
  divide_string(make<Text>(source), found, make_set<Text>(separators).c_str());
  strings result;
  for (auto const& each : found) result.push_back(plain(each));
  return result;
}

template <class Container>
std::string join(auto const& list, std::string_view separators) {
  using Text = typename Container::value_type;
  Container all;
  for (auto const& each : list) all.insert(all.end(), make<Text>(each));
  auto result = make<Text>("of before");
  consolidate_string(all, result, make_set<Text>(separators).c_str());
  return plain(result);
}

template <class Container>
struct Splitting : ::testing::Test {};
using Containers =
    ::testing::Types<std::vector<std::string>, std::list<std::wstring>, std::set<_bstr_t>>;

template <class Text>
struct Words : ::testing::Test {
  using Stream = std::basic_istringstream<velt::detail::character_of<Text>>;
};

std::string random_text(std::mt19937& random, std::size_t limit) {
  static constexpr auto alphabet = "abcdefgh;;,, \t\"\"\0"sv;
  std::string result(random() % (limit + 1), ' ');
  for (char& each : result) each = alphabet[random() % alphabet.size()];
  return result;
}

bool comes_back(std::string const& word, std::string_view separators) {
  if (word.empty() || word.find('"') != word.npos) return false;
  return word.find('\0') == word.npos || word.find_first_of(separators) != word.npos;
}

}  // namespace

TYPED_TEST_SUITE(Splitting, Containers);
TYPED_TEST_SUITE(Words, TextTypes);

TYPED_TEST(Splitting, DividesByTheRulesOfWords) {
  struct {
    std::string_view source, separators;
    words expected;  // in the order of a set
  } const rows[] = {
      {"", ";,", {}},
      {";,;;", ";,", {}},
      {";;a;b,c;;", ";,", {"a", "b", "c"}},
      {"\"a;b\";c", ";,", {"a;b", "c"}},
      {"a\"b;c\"d", ";,", {"ab;cd"}},
      {"\"\";a", ";,", {"a"}},
      {"\"a;b", ";,", {"a;b"}},
      {"a;b\"", ";,", {"a", "b"}},
      {" a ; b", ";", {" a ", " b"}},
      {"ab\"c d\"e f", " ", {"abc de", "f"}},
      {"a\0b"sv, ";", {"a", "b"}},
      {"\"a\0b\""sv, ";", {"a\0b"sv}},
      {"a;b", "", {"a;b"}},
      // The double quote as a separator.
      {"a\"b", "\"", {"a", "b"}},
      {"\"a;b\"c;d", ";\"", {"a;b", "c", "d"}},
      {"\"a\"\"b;c", ";\"", {"a", "b;c"}},
      {"a\";b", ";\"", {"a", "b"}},
      // As the joint of quoted words it is one too many.
      {"\"a;b\"\"\"c;d\"", "\";", {"a;b", "c", "d"}},
      {"a\xFF;b", ";\xFF", {"a", "b"}},
  };
  for (auto const& row : rows)
    EXPECT_EQ(divide<TypeParam>(row.source, row.separators),
              strings(row.expected.begin(), row.expected.end()))
        << row.source << " by " << row.separators;
}

TYPED_TEST(Splitting, JoinsByTheFirstSeparatorAndQuotesForAnyOfThem) {
  struct {
    words list;
    std::string_view separators, expected;
  } const rows[] = {
      {{}, ";,", ""},
      {{"a"}, ";,", "a"},
      {{"a;b", "c"}, ";,", "\"a;b\";c"},
      {{"a,b", "c"}, ";,", "\"a,b\";c"},
      {{"a", "b"}, ",;", "a,b"},
      {{"a", "b"}, "", "a\0b"sv},
      {{"", "a", "b"}, ";", ";a;b"},
      {{"a\"b", "c"}, ";", "a\"b;c"},
      {{"a\"b", "c"}, ";\"", "\"a\"b\";c"},
      {{"a\0b"sv, "c"}, ";", "a\0b;c"sv},
      {{"a;b", "c;d"}, "\";", "\"a;b\"\"\"c;d\""},
      {{"a\xE4", "b\xFF"}, ";\xFF", "a\xE4;\"b\xFF\""},
  };
  for (auto const& row : rows) EXPECT_EQ(join<TypeParam>(row.list, row.separators), row.expected);
}

TYPED_TEST(Words, ComeBackExceptTheToldOnesAndOffAStreamAreTheSame) {
  using Container = std::vector<TypeParam>;
  // Without the double quote, and with it where it is not the joint.
  std::string_view const sets[] = {";", ";,", " ,;\t", ",\"", ";\" ", "a;", ""};
  std::mt19937 random(20040229);
  for (int round = 0; round < 3000; ++round) {
    auto const separators = sets[random() % std::size(sets)];
    strings list, whole;
    for (int n = 0; n < 5; ++n)
      if (auto const word = random_text(random, 6); word.empty() || comes_back(word, separators)) {
        list.push_back(word);
        if (!word.empty()) whole.push_back(word);
      }
    auto const joined = join<Container>(list, separators);
    ASSERT_EQ(divide<Container>(joined, separators), whole) << joined << " by " << separators;

    auto const source = random_text(random, 20);
    auto expected = divide<Container>(source, separators);
    expected.resize(expected.size() + 2);
    typename TestFixture::Stream in(make_set<TypeParam>(source));
    TypeParam word;
    for (auto const& each : expected) {
      read_word(in, word, make_set<TypeParam>(separators).c_str());
      ASSERT_EQ(plain(word), each) << source << " by " << separators;
    }
  }
}

TYPED_TEST(Words, EscapePutsTheCharacterBeforeEachOfTheSet) {
  auto const escaped = [](std::string_view text, std::string_view set) {
    return plain(escape(make<TypeParam>(text), make_set<TypeParam>(set).c_str(), '\\'));
  };
  EXPECT_EQ(escaped("a;b;;c\0;"sv, ";"), "a\\;b\\;\\;c\0\\;"sv);
  EXPECT_EQ(escaped("a\\;", "\\;"), "a\\\\\\;");
  EXPECT_EQ(escaped("a;b", "") + escaped("", ";"), "a;b");
}

TEST(WideWords, AreSeparatedByWholeCharacters) {
  // The low byte of the second is that of the set's semicolon.
  std::vector<std::wstring> wide;
  divide_string(L"a\x2028" L"b\x203B" L"c;d", wide, L";\x2028");
  EXPECT_EQ(wide, (std::vector<std::wstring>{L"a", L"b\x203B" L"c", L"d"}));
  std::wstring joined_wide;
  consolidate_string(std::vector<std::wstring>{L"a\x203B", L"b\x2028"}, joined_wide, L";\x2028");
  EXPECT_EQ(joined_wide, L"a\x203B;\"b\x2028\"");
}
