// format_string, format_wstring, format_bstr: text by a printf format. The
// formats are those of the platform's run time: in a wide format %s takes wide
// text and %hs narrow text, in a narrow one %s takes narrow text and %ls wide.
// Objects cannot be passed: pass the c_str() of a text.
//
// The format must be terminated, as literals and std::string are: if the character
// behind the view is not NUL, std::logic_error is thrown and nothing is formatted.
//
// The result has at most 2047 characters; each function says what it does with more.
// It is formatted in a buffer on the stack, 2 KB or for the wide forms 4 KB.
//
// Safe from any thread. All can throw std::bad_alloc.
#pragma once

#include <string>

#include "velt/base/ConstString.h"
#include "velt/base/Export.h"

class _bstr_t;

// More than 2047 characters throw std::length_error ("string too long"), and so does
// an argument that the run time cannot format, such as wide text outside the code
// page for %ls.
VELT_API std::string format_string(basic_const_string<char> format, ...);
VELT_API std::wstring format_wstring(basic_const_string<wchar_t> format, ...);

// Cuts at 2047 characters without notice, and ends at the first NUL. Throws
// _com_error with 0x8007000E if the result cannot be allocated.
VELT_API _bstr_t format_bstr(basic_const_string<wchar_t> format, ...);
