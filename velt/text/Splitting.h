// read_word, divide_string, consolidate_string, escape: lists of words in one text,
// by the rules of a command line. They do not fit rows of a table, where empty
// fields count and quotes are doubled.
//
// `separators` is a set of characters: a terminated text, not null. Its terminator is
// in the set, so NUL always separates. A run of separators counts as one. Between
// double quotes separators are ordinary characters; the quotes can open and close
// anywhere in a word and are dropped, and a quote that is never closed reaches to the
// end. There are no empty words, not even from an empty pair of quotes. A double
// quote that is a separator itself opens quoting before a word and ends a word that
// has begun, quoted or not.
//
// Text is std::string, std::wstring or _bstr_t. Safe from any thread. These throw
// std::bad_alloc and std::length_error, and with _bstr_t _com_error with 0x8007000E
// if a string cannot be allocated; the target then keeps its content.
#pragma once

#include <concepts>
#include <iosfwd>
#include <list>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "velt/base/Export.h"

class _bstr_t;

namespace velt::detail {

template <class Text>
struct text_traits;
template <>
struct text_traits<std::string> {
  using character = char;
};
template <>
struct text_traits<std::wstring> {
  using character = wchar_t;
};
template <>
struct text_traits<_bstr_t> {
  using character = wchar_t;
};

template <class Text>
using character_of = typename text_traits<Text>::character;

}  // namespace velt::detail

// Takes one word and the separator behind it off the stream, and replaces `word` by it.
// White space separates only if it is in the set. The word is empty if none was left. The end of the input
// and a failure of the stream end a word.
VELT_API void read_word(std::istream& in, std::string& word, char const* separators);
VELT_API void read_word(std::wistream& in, std::wstring& word, wchar_t const* separators);
VELT_API void read_word(std::wistream& in, _bstr_t& word, wchar_t const* separators);

// Replaces the content of `words` by the words of `source`, which may be an element
// of `words`. A set sorts the words and merges equal ones.
template <class Text>
VELT_API void divide_string(std::type_identity_t<Text> const& source, std::vector<Text>& words,
                            velt::detail::character_of<Text> const* separators);
template <class Text>
VELT_API void divide_string(std::type_identity_t<Text> const& source, std::list<Text>& words,
                            velt::detail::character_of<Text> const* separators);
template <class Text>
VELT_API void divide_string(std::type_identity_t<Text> const& source, std::set<Text>& words,
                            velt::detail::character_of<Text> const* separators);

// The same of a view. Words is one of these containers, of std::string or std::wstring.
template <class Words>
void divide_string(
    std::same_as<std::basic_string_view<typename Words::value_type::value_type>> auto source,
    Words& words, typename Words::value_type::value_type const* separators) {
  using text = typename Words::value_type;
  divide_string<text>(text(source), words, separators);
}

// Replaces `result` by the words in their order, with the first character of
// `separators` between them (NUL if there is none), and double quotes around each
// word that holds any of the separators.
//
// divide_string with the same separators gives the words back, except empty ones,
// those with a double quote, which is not escaped, and those with a NUL and without
// quotes. The double quote must not be the first separator: between two quoted words
// it would be one quote too many.
template <class Text>
VELT_API void consolidate_string(std::vector<Text> const& words, std::type_identity_t<Text>& result,
                                 velt::detail::character_of<Text> const* separators);
template <class Text>
VELT_API void consolidate_string(std::list<Text> const& words, std::type_identity_t<Text>& result,
                                 velt::detail::character_of<Text> const* separators);
template <class Text>
VELT_API void consolidate_string(std::set<Text> const& words, std::type_identity_t<Text>& result,
                                 velt::detail::character_of<Text> const* separators);

// The text with `escape_character` before each character that is in the set
// `characters`, a terminated text. The escape character itself is escaped only if it
// is in the set. An empty set changes nothing.
VELT_API std::string escape(std::string const& source, char const* characters,
                            char escape_character);
VELT_API std::wstring escape(std::wstring const& source, wchar_t const* characters,
                             wchar_t escape_character);

// For _bstr_t itself and no type that converts to it, so that a literal selects the
// forms above.
template <std::same_as<_bstr_t> ComString>
VELT_API ComString escape(ComString const& source, wchar_t const* characters,
                          wchar_t escape_character);
