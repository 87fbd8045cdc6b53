// format_string, format_wstring, format_bstr: text by a printf format. The
// formats are those of the platform's run time: in a wide format %s takes wide
// text and %hs narrow text, in a narrow one %s takes narrow text and %ls wide.
// Arguments are passed as they are, so texts go in by c_str().
//
// The format must be terminated: if the character behind the view is not NUL,
// std::logic_error is thrown and nothing is formatted. A literal and a
// std::string always are.
//
// At most 2047 characters can be made, in a buffer on the stack, which is all
// that is used before the result: 2 KB, or 4 KB for the wide forms. What a
// longer text leads to differs, see below.
//
// Safe from any thread. Throws std::bad_alloc besides.
#pragma once

#include <string>

#include "velt/base/ConstString.h"
#include "velt/base/Export.h"

class _bstr_t;

// A text of more than 2047 characters throws std::length_error ("string too
// long"), and so does an argument that the run time cannot format, as wide text
// outside the code page for %ls.
VELT_API std::string format_string(basic_const_string<char> format, ...);
VELT_API std::wstring format_wstring(basic_const_string<wchar_t> format, ...);

// A text of more than 2047 characters is cut to 2047 without notice, and the
// result ends at the first NUL. Throws _com_error with 0x8007000E if the result
// cannot be allocated.
VELT_API _bstr_t format_bstr(basic_const_string<wchar_t> format, ...);
