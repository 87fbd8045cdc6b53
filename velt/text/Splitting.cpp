#include "velt/text/Splitting.h"

#include <comdef.h>

#include <cassert>
#include <istream>
#include <string_view>
#include <utility>

#include "velt/text/ComStringInternal.h"
#include "velt/value/ConstString.h"

namespace {

using velt::detail::character_of;

constexpr auto quote = '"';

template <class Char>
class Separators {
public:
  explicit Separators(Char const* characters) : set(characters) { assert(characters); }

  // The terminator is a separator like any other.
  bool contain(Char character) const {
    return character == Char() || set.find(character) != set.npos;
  }
  Char joint() const { return set.empty() ? Char() : set.front(); }
  bool occur_in(std::basic_string_view<Char> word) const {
    return word.find_first_of(set) != word.npos;
  }

private:
  std::basic_string_view<Char> set;
};

// Sources of characters: next() takes the next one, if there is one.

template <class Char>
class StreamSource {
public:
  explicit StreamSource(std::basic_istream<Char>& source) : in(source) {}

  // A stream at its end is left alone: a further read would make it fail.
  bool next(Char& character) {
    if (in.eof()) return false;
    in.read(&character, 1);
    return !in.fail() && in.gcount() == 1;
  }

private:
  std::basic_istream<Char>& in;
};

template <class Char>
class TextSource {
public:
  explicit TextSource(std::basic_string_view<Char> text) : rest(text) {}

  bool next(Char& character) {
    if (rest.empty()) return false;
    character = rest.front();
    rest.remove_prefix(1);
    return true;
  }

private:
  std::basic_string_view<Char> rest;
};

// The rules of words. An empty word means that the source is at its end.
template <class Char, class Source>
void take_word(Source& source, std::basic_string<Char>& word, Separators<Char> separators) {
  word.clear();
  bool quoted = false;
  for (Char character; source.next(character);) {
    if (character == quote) {
      if (!word.empty() && separators.contain(character)) return;
      quoted = !quoted;
    } else if (quoted || !separators.contain(character)) {
      word += character;
    } else if (!word.empty()) {
      return;
    }
  }
}

template <class Char>
void take_word(std::basic_istream<Char>& in, std::basic_string<Char>& word,
               Char const* separators) {
  StreamSource<Char> source(in);
  take_word(source, word, Separators<Char>(separators));
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

// The finished text in the kind that was asked for.
template <class Text>
Text as_text(std::basic_string<character_of<Text>> const& text) {
  if constexpr (std::same_as<Text, _bstr_t>)
    return checked_bstr(text);
  else
    return text;
}

// Into a container of its own, since the source may be one of the old words.
template <class Text, class Container>
void divide(Text const& text, Container& words, character_of<Text> const* characters) {
  using Char = character_of<Text>;
  TextSource<Char> source(view_of(text));
  Separators<Char> const separators(characters);
  Container found;
  std::basic_string<Char> word;
  for (take_word(source, word, separators); !word.empty(); take_word(source, word, separators))
    found.insert(found.end(), as_text<Text>(word));
  words = std::move(found);
}

template <class Text, class Container>
void consolidate(Container const& words, Text& result, character_of<Text> const* characters) {
  using Char = character_of<Text>;
  Separators<Char> const separators(characters);
  std::basic_string<Char> joined;
  bool first = true;
  for (auto const& each : words) {
    auto const word = view_of(each);
    if (!std::exchange(first, false)) joined += separators.joint();
    bool const quoted = separators.occur_in(word);
    if (quoted) joined += quote;
    joined += word;
    if (quoted) joined += quote;
  }
  result = as_text<Text>(joined);
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
