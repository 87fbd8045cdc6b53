// read_word, divide_string, consolidate_string, escape: lists of words in one
// text, by the rules of a command line. For rows of a table, where an empty
// field counts and quotes are doubled, use a reader of such files instead.
//
// A separator is any character of a set, which is a terminated text, must not be
// null, and counts its terminator: NUL always separates. Any run of separators
// is one. Double quotes, which can open and close anywhere in a word and are
// dropped, take the power from the separators between them; one that is never
// closed reaches to the end. So there are no empty words, not even by an empty
// pair of quotes. If the double quote is a separator itself, it opens quoting in
// front of a word and ends a word that has begun, quoted or not.
//
// Text is std::string, std::wstring or _bstr_t. Safe from any thread. Throw
// std::bad_alloc and std::length_error; with _bstr_t also _com_error with
// 0x8007000E if a string cannot be allocated. What is filled keeps its contents
// then.
#pragma once

#include <concepts>
#include <iosfwd>
#include <list>
#include <set>
#include <string>
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

// Takes one word and the separator behind it off the stream, white space being
// no separator unless it is in the set. The word is empty if none was left. End
// of input and a failed stream end a word alike.
VELT_API void read_word(std::istream& in, std::string& word, char const* separators);
VELT_API void read_word(std::wistream& in, std::wstring& word, wchar_t const* separators);
VELT_API void read_word(std::wistream& in, _bstr_t& word, wchar_t const* separators);

// Replaces what `words` holds by the words of `source`, which may be one of
// them. A set sorts them and merges equal ones.
template <class Text>
VELT_API void divide_string(std::type_identity_t<Text> const& source, std::vector<Text>& words,
                            velt::detail::character_of<Text> const* separators);
template <class Text>
VELT_API void divide_string(std::type_identity_t<Text> const& source, std::list<Text>& words,
                            velt::detail::character_of<Text> const* separators);
template <class Text>
VELT_API void divide_string(std::type_identity_t<Text> const& source, std::set<Text>& words,
                            velt::detail::character_of<Text> const* separators);

// Replaces `result` by the words in their order, with the first character of
// `separators` between them (NUL if it is empty). A word that holds any of the
// separators is put in double quotes.
//
// divide_string with the same separators gives the words back, except those that
// are empty, those with a double quote, which nothing protects, and those with a
// NUL that are not in quotes. The double quote must not be the first separator:
// as the joint between two quoted words it is one quote too many.
template <class Text>
VELT_API void consolidate_string(std::vector<Text> const& words, std::type_identity_t<Text>& result,
                                 velt::detail::character_of<Text> const* separators);
template <class Text>
VELT_API void consolidate_string(std::list<Text> const& words, std::type_identity_t<Text>& result,
                                 velt::detail::character_of<Text> const* separators);
template <class Text>
VELT_API void consolidate_string(std::set<Text> const& words, std::type_identity_t<Text>& result,
                                 velt::detail::character_of<Text> const* separators);

// The text with `escape_character` before each of the characters of a set, a
// terminated text. The escape character itself gets one only if it is in the
// set. An empty set gives the text as it is.
VELT_API std::string escape(std::string const& source, char const* characters,
                            char escape_character);
VELT_API std::wstring escape(std::wstring const& source, wchar_t const* characters,
                             wchar_t escape_character);

// For _bstr_t, and for nothing that merely converts to it, so that a literal
// goes to the forms above.
template <std::same_as<_bstr_t> ComString>
VELT_API ComString escape(ComString const& source, wchar_t const* characters,
                          wchar_t escape_character);
