// basic_const_string: a non-owning view of text, for parameters that take a
// literal, a string or a part of one without a copy. Unlike std::string_view it
// can be asked whether a terminator follows its text.
#pragma once

#include <cassert>
#include <concepts>
#include <stdexcept>
#include <string>
#include <string_view>

class _bstr_t;

// The text must outlive the view. Copying copies the two fields. Thread safety
// is that of the text.
template <class CharT>
struct basic_const_string {
  CharT const* data = nullptr;   // the first character
  unsigned __int64 length = 0;   // characters, without any terminator

  constexpr basic_const_string() noexcept = default;

  // Measures up to the terminator; `text` must not be null.
  constexpr basic_const_string(CharT const* text) noexcept : data(text) {
    assert(text);
    length = std::char_traits<CharT>::length(text);
  }

  // `text` may be null only if `size` is 0.
  constexpr basic_const_string(CharT const* text, unsigned __int64 size) noexcept
      : data(text), length(size) {}

  // The whole text of a standard string, NULs included.
  template <class Allocator>
  constexpr basic_const_string(
      std::basic_string<CharT, std::char_traits<CharT>, Allocator> const& text) noexcept
      : data(text.data()), length(text.size()) {}

  // The same of a view.
  template <std::same_as<std::basic_string_view<CharT>> View>
  constexpr basic_const_string(View text) noexcept : data(text.data()), length(text.size()) {}

  // The wide text of a COM string in its stored length, NULs included.
  template <std::same_as<_bstr_t> ComString>
    requires std::same_as<CharT, wchar_t>
  constexpr basic_const_string(ComString const& text) noexcept
      : data(static_cast<wchar_t const*>(text)), length(text.length()) {}

  // The text as a terminated string, for views of terminated text only: reads
  // the character behind the view and throws std::logic_error if it is not NUL.
  constexpr CharT const* c_str() const {
    if (data[length] != CharT())
      throw std::logic_error("Invalid _data of const_string for c_str()");
    return data;
  }

  // The same characters as a standard view.
  constexpr std::basic_string_view<CharT> view() const noexcept { return {data, length}; }
};
