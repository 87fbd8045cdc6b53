// trim, triml, trimr: return a copy of the text without the characters of a set at
// both ends, at the left, or at the right.
//
// `characters` is the set: a terminated text, not null. An empty set removes nothing.
// A text of such characters alone becomes empty. NULs within the text are kept.
//
// Safe from any thread. Throw std::bad_alloc; the _bstr_t forms throw _com_error with
// 0x8007000E if their data record cannot be allocated.
#pragma once

#include <concepts>
#include <string>
#include <string_view>

#include "velt/base/Export.h"

class _bstr_t;

// Without the characters at both ends, at the left end, at the right end.
VELT_API std::string trim(std::string const& source, char const* characters);
VELT_API std::string triml(std::string const& source, char const* characters);
VELT_API std::string trimr(std::string const& source, char const* characters);

// The same for wide text.
VELT_API std::wstring trim(std::wstring const& source, wchar_t const* characters);
VELT_API std::wstring triml(std::wstring const& source, wchar_t const* characters);
VELT_API std::wstring trimr(std::wstring const& source, wchar_t const* characters);

// For _bstr_t itself and no type that converts to it, so that a literal selects the
// forms above. The result is always an allocated string: a null _bstr_t gives an
// empty one.
template <std::same_as<_bstr_t> ComString>
VELT_API ComString trim(ComString const& source, wchar_t const* characters);
template <std::same_as<_bstr_t> ComString>
VELT_API ComString triml(ComString const& source, wchar_t const* characters);
template <std::same_as<_bstr_t> ComString>
VELT_API ComString trimr(ComString const& source, wchar_t const* characters);

// The same of a view.
#define VELT_TRIM(NAME)                                                              \
  inline std::string NAME(std::same_as<std::string_view> auto source,                \
                          char const* characters) {                                  \
    return NAME(std::string(source), characters);                                    \
  }                                                                                  \
  inline std::wstring NAME(std::same_as<std::wstring_view> auto source,              \
                           wchar_t const* characters) {                              \
    return NAME(std::wstring(source), characters);                                   \
  }
VELT_TRIM(trim)
VELT_TRIM(triml)
VELT_TRIM(trimr)
#undef VELT_TRIM
