// The user's locale as it was when the library was loaded: built once, never
// changed, and no concern of std::locale::global or setlocale.
#pragma once

#include <locale>

#include "velt/base/Export.h"

namespace velt::detail {

VELT_API std::locale const& user_locale();

// Its classes and cases of characters. Finding a facet in a locale costs more
// than lower-casing a word, so the two are kept at hand.
template <class Char>
std::ctype<Char> const& user_ctype();
template <>
std::ctype<char> const& user_ctype<char>();
template <>
std::ctype<wchar_t> const& user_ctype<wchar_t>();

}  // namespace velt::detail
