#include "velt/text/Splitting.h"

#include <comdef.h>

#include <algorithm>
#include <bitset>
#include <cassert>
#include <istream>
#include <string_view>
#include <utility>

#include "velt/base/ConstString.h"
#include "velt/text/ComStringInternal.h"

namespace {

using velt::detail::character_of;

constexpr auto quote = '"';

template <class Char>
class separator_set {
public:
  explicit separator_set(Char const* characters) : set(characters) {
    assert(characters);
    for (Char const each : set)
      if (code_of(each) < low.size()) low.set(code_of(each));
    low.set(0);  // the terminator is a separator like any other
  }

  bool contain(Char character) const {
    auto const code = code_of(character);
    return code < low.size() ? low[code] : set.find(character) != set.npos;
  }
  bool call_for_quotes(Char character) const { return character != Char() && contain(character); }
  Char joint() const { return set.empty() ? Char() : set.front(); }

private:
  static std::size_t code_of(Char character) { return std::make_unsigned_t<Char>(character); }

  std::basic_string_view<Char> set;
  // Those of the lowest codes: in narrow text all of them.
  std::bitset<256> low;
};

// Sources of characters. take_run() appends characters to the word until one ends
// the run; that one goes into `stop`. False if the source ends first.

template <class Char>
class stream_source {
public:
  explicit stream_source(std::basic_istream<Char>& source) : in(source) {}

  template <class Ends>
  bool take_run(std::basic_string<Char>& word, Ends ends, Char& stop) {
    while (next(stop)) {
      if (ends(stop)) return true;
      word += stop;
    }
    return false;
  }

private:
  // A stream at its end is left alone: a further read would make it fail.
  bool next(Char& character) {
    if (in.eof()) return false;
    in.read(&character, 1);
    return !in.fail() && in.gcount() == 1;
  }

  std::basic_istream<Char>& in;
};

template <class Char>
class text_source {
public:
  explicit text_source(std::basic_string_view<Char> text) : rest(text) {}

  template <class Word, class Ends>
  bool take_run(Word& word, Ends ends, Char& stop) {
    auto const end = std::find_if(rest.begin(), rest.end(), ends);
    word.append(rest.begin(), end);
    if (end == rest.end()) {
      rest = {};
      return false;
    }
    stop = *end;
    rest = {end + 1, rest.end()};
    return true;
  }

private:
  std::basic_string_view<Char> rest;
};

// The rules of words. Word is a string, or another class that runs of characters can
// be appended to. False, and an empty word, if none was left.
template <class Source, class Word, class Char>
bool take_word(Source& source, Word& word, separator_set<Char> const& separators) {
  word.clear();
  bool quoted = false;
  auto const ends = [&](Char character) {
    return character == quote || (!quoted && separators.contain(character));
  };
  for (Char stop; source.take_run(word, ends, stop);) {
    if (stop == quote && (word.empty() || !separators.contain(quote)))
      quoted = !quoted;
    else if (!word.empty())
      return true;
  }
  return !word.empty();
}

// A word for counting: it only knows whether it is empty.
class presence {
public:
  void clear() { present = false; }
  bool empty() const { return !present; }
  template <class Iterator>
  void append(Iterator first, Iterator last) { present = present || first != last; }

private:
  bool present = false;
};

template <class Char>
std::size_t count_words(std::basic_string_view<Char> text, separator_set<Char> const& separators) {
  text_source<Char> source(text);
  std::size_t count = 0;
  for (presence word; take_word(source, word, separators);) ++count;
  return count;
}

template <class Char>
void take_word(std::basic_istream<Char>& in, std::basic_string<Char>& word,
               Char const* separators) {
  stream_source<Char> source(in);
  take_word(source, word, separator_set<Char>(separators));
}

template <class Char>
std::basic_string_view<Char> view_of(std::basic_string<Char> const& text) {
  return text;
}
std::basic_string_view<wchar_t> view_of(_bstr_t const& text) {
  return basic_const_string<wchar_t>(text).view();
}

_bstr_t checked_bstr(std::wstring_view text) {
  auto const result = velt::detail::make_bstr(text);
  if (!result) velt::detail::raise_com_error(E_OUTOFMEMORY);
  return result;
}

// The finished text, in the kind of text that the caller uses.
template <class Text>
Text as_text(std::basic_string<character_of<Text>>&& text) {
  if constexpr (std::same_as<Text, _bstr_t>)
    return checked_bstr(text);
  else
    return std::move(text);
}

// Fills a new container, since the source may be one of the old words.
template <class Text, class Container>
void divide(Text const& text, Container& words, character_of<Text> const* characters) {
  using Char = character_of<Text>;
  auto const view = view_of(text);
  separator_set<Char> const separators(characters);
  Container found;
  if constexpr (requires { found.reserve(0); }) found.reserve(count_words(view, separators));
  text_source<Char> source(view);
  for (std::basic_string<Char> word; take_word(source, word, separators);)
    found.insert(found.end(), as_text<Text>(std::move(word)));
  words = std::move(found);
}

// The most that the joined words can need: each with a joint and in quotes.
template <class Container>
std::size_t joined_size(Container const& words) {
  std::size_t size = 0;
  for (auto const& each : words) size += view_of(each).size() + 3;
  return size;
}

// Write a word and return the place of the next character.

template <class Char>
Char* write_quoted(std::basic_string_view<Char> word, Char* out) {
  *out++ = quote;
  out = std::copy(word.begin(), word.end(), out);
  *out++ = quote;
  return out;
}

template <class Char>
Char* write_word(std::basic_string_view<Char> word, Char* out,
                 separator_set<Char> const& separators) {
  auto const begin = out;
  for (Char const each : word) {
    if (separators.call_for_quotes(each)) return write_quoted(word, begin);
    *out++ = each;
  }
  return out;
}

template <class Text, class Container>
void consolidate(Container const& words, Text& result, character_of<Text> const* characters) {
  using Char = character_of<Text>;
  separator_set<Char> const separators(characters);
  std::basic_string<Char> joined(joined_size(words), Char());
  auto out = joined.data();
  bool first = true;
  for (auto const& each : words) {
    if (!std::exchange(first, false)) *out++ = separators.joint();
    out = write_word(view_of(each), out, separators);
  }
  joined.resize(static_cast<std::size_t>(out - joined.data()));
  result = as_text<Text>(std::move(joined));
}

template <class Char>
std::basic_string<Char> escaped(std::basic_string_view<Char> source, Char const* characters,
                                Char escape_character) {
  assert(characters);
  std::basic_string_view<Char> const set(characters);
  std::basic_string<Char> result;
  result.reserve(source.size());
  for (Char const each : source) {
    if (set.find(each) != set.npos) result += escape_character;
    result += each;
  }
  return result;
}

}  // namespace

void read_word(std::istream& in, std::string& word, char const* separators) {
  take_word(in, word, separators);
}
void read_word(std::wistream& in, std::wstring& word, wchar_t const* separators) {
  take_word(in, word, separators);
}
void read_word(std::wistream& in, _bstr_t& word, wchar_t const* separators) {
  std::wstring characters;
  take_word(in, characters, separators);
  word = checked_bstr(characters);
}

template <class Text>
void divide_string(std::type_identity_t<Text> const& source, std::vector<Text>& words,
                   character_of<Text> const* separators) {
  divide<Text>(source, words, separators);
}
template <class Text>
void divide_string(std::type_identity_t<Text> const& source, std::list<Text>& words,
                   character_of<Text> const* separators) {
  divide<Text>(source, words, separators);
}
template <class Text>
void divide_string(std::type_identity_t<Text> const& source, std::set<Text>& words,
                   character_of<Text> const* separators) {
  divide<Text>(source, words, separators);
}

template <class Text>
void consolidate_string(std::vector<Text> const& words, std::type_identity_t<Text>& result,
                        character_of<Text> const* separators) {
  consolidate<Text>(words, result, separators);
}
template <class Text>
void consolidate_string(std::list<Text> const& words, std::type_identity_t<Text>& result,
                        character_of<Text> const* separators) {
  consolidate<Text>(words, result, separators);
}
template <class Text>
void consolidate_string(std::set<Text> const& words, std::type_identity_t<Text>& result,
                        character_of<Text> const* separators) {
  consolidate<Text>(words, result, separators);
}

#define VELT_INSTANTIATE(TEXT, CONTAINER)                                           \
  template VELT_API void divide_string(TEXT const&, CONTAINER<TEXT>&,               \
                                       character_of<TEXT> const*);                  \
  template VELT_API void consolidate_string(CONTAINER<TEXT> const&, TEXT&,          \
                                            character_of<TEXT> const*);
#define VELT_INSTANTIATE_ALL(TEXT)    \
  VELT_INSTANTIATE(TEXT, std::vector) \
  VELT_INSTANTIATE(TEXT, std::list)   \
  VELT_INSTANTIATE(TEXT, std::set)
VELT_INSTANTIATE_ALL(std::string)
VELT_INSTANTIATE_ALL(std::wstring)
VELT_INSTANTIATE_ALL(_bstr_t)
#undef VELT_INSTANTIATE_ALL
#undef VELT_INSTANTIATE

std::string escape(std::string const& source, char const* characters, char escape_character) {
  return escaped<char>(source, characters, escape_character);
}
std::wstring escape(std::wstring const& source, wchar_t const* characters,
                    wchar_t escape_character) {
  return escaped<wchar_t>(source, characters, escape_character);
}
template <std::same_as<_bstr_t> ComString>
ComString escape(ComString const& source, wchar_t const* characters, wchar_t escape_character) {
  return checked_bstr(escaped(view_of(source), characters, escape_character));
}
template VELT_API _bstr_t escape(_bstr_t const&, wchar_t const*, wchar_t);
