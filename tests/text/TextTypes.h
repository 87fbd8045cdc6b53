// The three kinds of text, for tests that write their texts as plain characters.
#pragma once

#include <gtest/gtest.h>

#include <comdef.h>

#include <string>
#include <string_view>

#include "velt/base/ConstString.h"
#include "velt/text/Splitting.h"

using TextTypes = ::testing::Types<std::string, std::wstring, _bstr_t>;

// The same characters in the kind of text that is tested, and in its kind of sets.
template <class Text>
Text make(std::string_view characters) {
  if constexpr (std::same_as<Text, _bstr_t>)
    return {SysAllocStringLen(make<std::wstring>(characters).data(),
                              static_cast<UINT>(characters.size())),
            false};
  else
    return Text(characters.begin(), characters.end());
}
template <class Text>
auto make_set(std::string_view characters) {
  return make<std::basic_string<velt::detail::character_of<Text>>>(characters);
}

// And back, for comparison.
template <class Text>
std::string plain(Text const& text) {
  std::string result;
  for (auto const each : basic_const_string<velt::detail::character_of<Text>>(text).view())
    result += static_cast<char>(each);
  return result;
}
