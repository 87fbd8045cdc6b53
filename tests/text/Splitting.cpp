#include "velt/text/Splitting.h"

#include "TextTypes.h"

#include <algorithm>
#include <random>
#include <sstream>

using namespace std::string_view_literals;

namespace {

using words = std::vector<std::string_view>;

template <class Container>
struct Splitting : ::testing::Test {
  using Text = typename Container::value_type;

  static Container divide(std::string_view source, std::string_view separators) {
    Container result = {make<Text>("of before")};
    divide_string(make<Text>(source), result, make_set<Text>(separators).c_str());
    return result;
  }

  static Text consolidate(Container const& list, std::string_view separators) {
    auto result = make<Text>("of before");
    consolidate_string(list, result, make_set<Text>(separators).c_str());
    return result;
  }

  template <class Word>
  static Container list_of(std::vector<Word> const& list) {
    Container result;
    for (auto const& each : list) result.insert(result.end(), make<Text>(each));
    return result;
  }

  template <class Word>
  static std::vector<std::string> plain_list(std::vector<Word> const& list) {
    return {list.begin(), list.end()};
  }
  static std::vector<std::string> plain_list(Container const& list) {
    std::vector<std::string> result;
    for (auto const& each : list) result.push_back(plain(each));
    return result;
  }
};

using Containers =
    ::testing::Types<std::vector<std::string>, std::list<std::wstring>, std::set<_bstr_t>>;

constexpr int round_trips = 3000;

class RandomText {
public:
  std::size_t number(std::size_t limit) { return generator() % limit; }

  std::string text(std::size_t limit) {
    static constexpr auto alphabet = "abcdefgh;;,, \t\"\"\0"sv;
    std::string result(number(limit + 1), ' ');
    for (char& each : result) each = alphabet[number(alphabet.size())];
    return result;
  }

  // Without the double quote, and with it where it is not the joint.
  std::string_view separators() {
    static constexpr std::string_view sets[] = {";", ";,", " ,;\t", ",\"", ";\" ", "a;", ""};
    return sets[number(std::size(sets))];
  }

private:
  std::mt19937 generator{20040229};
};

bool protected_by_quotes(std::string const& word, std::string_view separators) {
  return word.find_first_of(separators) != word.npos;
}

bool comes_back(std::string const& word, std::string_view separators) {
  if (word.empty() || word.find('"') != word.npos) return false;
  return word.find('\0') == word.npos || protected_by_quotes(word, separators);
}

}  // namespace

TYPED_TEST_SUITE(Splitting, Containers);

TYPED_TEST(Splitting, DividesByTheRulesOfWords) {
  struct {
    std::string_view source, separators;
    words expected;
  } const rows[] = {
      {"", ";,", {}},
      {";,;;", ";,", {}},
      {"a;b,c", ";,", {"a", "b", "c"}},
      {";;a;;b;;", ";,", {"a", "b"}},
      {"\"a;b\";c", ";,", {"a;b", "c"}},
      {"a\"b;c\"d", ";,", {"ab;cd"}},
      {"\"\";a", ";,", {"a"}},
      {"\"\"", ";,", {}},
      {"\"a;b", ";,", {"a;b"}},
      {"a;b\"", ";,", {"a", "b"}},
      {" a ; b", ";", {" a ", " b"}},
      {"ab\"c d\"e f", " ", {"abc de", "f"}},
      {"a\0b"sv, ";", {"a", "b"}},
      {"\"a\0b\""sv, ";", {"a\0b"sv}},
      {"a;b", "", {"a;b"}},
      {"a\nb", ";", {"a\nb"}},
      // The double quote as a separator.
      {"a\"b", "\"", {"a", "b"}},
      {"\"a;b\"c;d", ";\"", {"a;b", "c", "d"}},
      {"\"a\"\"b;c", ";\"", {"a", "b;c"}},
      {"a\";b", ";\"", {"a", "b"}},
      // As the joint of quoted words it is one too many.
      {"\"a;b\"\"\"c;d\"", "\";", {"a;b", "c", "d"}},
  };
  for (auto const& row : rows) {
    auto const found = this->divide(row.source, row.separators);
    EXPECT_EQ(this->plain_list(found), this->plain_list(this->list_of(row.expected)))
        << row.source << " by " << row.separators;
  }
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
  };
  for (auto const& row : rows) {
    auto const joined = this->consolidate(this->list_of(row.list), row.separators);
    EXPECT_EQ(plain(joined), row.expected);
  }
}

TYPED_TEST(Splitting, WordsComeBackExceptTheToldOnes) {
  RandomText random;
  for (int round = round_trips; round > 0; --round) {
    auto const separators = random.separators();
    std::vector<std::string> list, whole;
    for (auto count = random.number(6); count > 0; --count) {
      auto const word = random.text(6);
      if (comes_back(word, separators)) {
        list.push_back(word);
        whole.push_back(word);
      } else {
        // An empty word leaves no trace, the others come back as something else.
        if (word.empty()) list.push_back(word);
        auto const alone = this->list_of(std::vector<std::string>{word});
        auto const back = this->divide(plain(this->consolidate(alone, separators)), separators);
        ASSERT_NE(this->plain_list(back), this->plain_list(alone)) << word << " by " << separators;
      }
    }
    auto const joined = plain(this->consolidate(this->list_of(list), separators));
    ASSERT_EQ(this->plain_list(this->divide(joined, separators)),
              this->plain_list(this->list_of(whole)))
        << joined << " by " << separators;
  }
}

namespace {

template <class Text>
struct TextStream {
  using type = std::basic_istringstream<typename character_of<Text>::type>;
};

template <class Text>
struct Words : ::testing::Test {};

}  // namespace

TYPED_TEST_SUITE(Words, TextTypes);

TYPED_TEST(Words, ReadOffAStreamAreThoseOfDivideString) {
  RandomText random;
  for (int round = round_trips; round > 0; --round) {
    auto const source = random.text(20);
    auto const separators = make_set<TypeParam>(random.separators());
    std::vector<TypeParam> expected;
    divide_string(make<TypeParam>(source), expected, separators.c_str());

    typename TextStream<TypeParam>::type in(make_set<TypeParam>(source));
    TypeParam word;
    for (auto const& each : expected) {
      read_word(in, word, separators.c_str());
      ASSERT_EQ(plain(word), plain(each)) << source;
    }
    for (int beyond = 0; beyond < 2; ++beyond) {
      read_word(in, word, separators.c_str());
      ASSERT_EQ(plain(word), "") << source;
    }
  }
}

TYPED_TEST(Words, ReadingStopsBehindTheSeparatorAndAtAFailure) {
  auto const separators = make_set<TypeParam>(";");
  typename TextStream<TypeParam>::type in(make_set<TypeParam>(";; a b;;c"));
  auto word = make<TypeParam>("of before");
  read_word(in, word, separators.c_str());
  EXPECT_EQ(plain(word), " a b");
  EXPECT_EQ(in.get(), ';');
  in.setstate(std::ios::failbit);
  read_word(in, word, separators.c_str());
  EXPECT_EQ(plain(word), "");
  in.clear();
  read_word(in, word, separators.c_str());
  EXPECT_EQ(plain(word), "c");
  EXPECT_TRUE(in.eof());
}

TYPED_TEST(Words, EscapePutsTheCharacterBeforeEachOfTheSet) {
  constexpr struct {
    std::string_view source, set, expected;
  } rows[] = {
      {"a;b;;c", ";", "a\\;b\\;\\;c"}, {"abc", ";", "abc"},     {"", ";", ""},
      {"a\\;", ";", "a\\\\;"},         {"a\\;", "\\;", "a\\\\\\;"}, {"a;b", "", "a;b"},
      {"a\0;"sv, ";", "a\0\\;"sv},
  };
  for (auto const& row : rows) {
    auto const set = make_set<TypeParam>(row.set);
    EXPECT_EQ(plain(escape(make<TypeParam>(row.source), set.c_str(), '\\')), row.expected);
  }
}

TEST(WordsBeyondAscii, AreSeparatedAsOthersAre) {
  std::vector<std::string> narrow;
  divide_string("a\xE4" "b\xFF" "c;d", narrow, ";\xFF");
  EXPECT_EQ(narrow, (std::vector<std::string>{"a\xE4" "b", "c", "d"}));
  std::string joined;
  consolidate_string(std::vector<std::string>{"a\xE4", "b\xFF"}, joined, ";\xFF");
  EXPECT_EQ(joined, "a\xE4;\"b\xFF\"");

  // The low byte of the second is that of the set's semicolon.
  std::vector<std::wstring> wide;
  divide_string(L"a\x2028" L"b\x203B" L"c;d", wide, L";\x2028");
  EXPECT_EQ(wide, (std::vector<std::wstring>{L"a", L"b\x203B" L"c", L"d"}));
  std::wstring joined_wide;
  consolidate_string(std::vector<std::wstring>{L"a\x203B", L"b\x2028"}, joined_wide, L";\x2028");
  EXPECT_EQ(joined_wide, L"a\x203B;\"b\x2028\"");
}
