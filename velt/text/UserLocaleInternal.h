// The user's locale at the time when the library was loaded. It is built once and
// never changes; std::locale::global and setlocale have no effect on it.
#pragma once

#include <locale>

#include "velt/base/Export.h"

namespace velt::detail {

VELT_API std::locale const& user_locale();

// The classes and cases of its characters. Looking up a facet in a locale costs more
// than lower-casing a word, so both facets are looked up once.
template <class Char>
std::ctype<Char> const& user_ctype();
template <>
std::ctype<char> const& user_ctype<char>();
template <>
std::ctype<wchar_t> const& user_ctype<wchar_t>();

}  // namespace velt::detail
