// strlower, strupper: return a copy of the text with its letters in lower or upper
// case, of the same length.
//
// Letters and their cases are those of the user's locale at the time when the
// library was loaded; std::locale::global and setlocale have no effect. Each
// character is converted by itself: none becomes two.
//
// Safe from any thread. Throws std::bad_alloc.
#pragma once

#include <concepts>
#include <string>

#include "velt/base/Export.h"

class _bstr_t;

// Text in the system's ANSI code page, byte by byte.
VELT_API std::string strlower(std::string const& source);
VELT_API std::string strupper(std::string const& source);

// Wide text, by the rules of the user's locale.
VELT_API std::wstring strlower(std::wstring const& source);
VELT_API std::wstring strupper(std::wstring const& source);

// For _bstr_t itself and no type that converts to it, so that a literal selects the
// forms above. A null or empty string gives one that shares its data. Throws
// _com_error with 0x8007000E if the data record of the result cannot be allocated;
// if its characters cannot, the heap raises the structured exception
// STATUS_NO_MEMORY.
template <std::same_as<_bstr_t> ComString>
VELT_API ComString strlower(ComString const& source);
template <std::same_as<_bstr_t> ComString>
VELT_API ComString strupper(ComString const& source);
