// The three kinds of text, for typed tests that write their texts as plain
// characters.
#pragma once

#include <gtest/gtest.h>

#include <comdef.h>

#include <string>
#include <string_view>

using TextTypes = ::testing::Types<std::string, std::wstring, _bstr_t>;

template <class Text>
struct character_of {
  using type = typename Text::value_type;
};
template <>
struct character_of<_bstr_t> {
  using type = wchar_t;
};

// The same characters in the kind of text that is tested.
template <class Text>
Text make(std::string_view characters) {
  return Text(characters.begin(), characters.end());
}
template <>
inline _bstr_t make<_bstr_t>(std::string_view characters) {
  auto const wide = make<std::wstring>(characters);
  return _bstr_t(SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size())), false);
}

// A set of characters as the functions take it.
template <class Text>
auto make_set(std::string_view characters) {
  return std::basic_string<typename character_of<Text>::type>(characters.begin(),
                                                              characters.end());
}

// And back, for comparison.
template <class Text>
std::string plain(Text const& text) {
  std::string result;
  for (auto const character : text) result += static_cast<char>(character);
  return result;
}
template <>
inline std::string plain(_bstr_t const& text) {
  return plain(std::wstring(text, text.length()));
}
