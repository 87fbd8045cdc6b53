// as_string, as_wstring: wide text as narrow text of a code page, and back.
//
// `code_page` is a number of the platform; 0 is the system's ANSI code page. The
// view needs no terminator, and NULs in it are converted like other characters. The
// platform replaces a character that the code page lacks by the most similar one (in
// 1252 L for U+0141, 8 for infinity), or else by the default character, usually '?', and
// bytes that are no character by one of its choice.
//
// An empty view gives an empty text in any code page, without a call to the
// platform. Throws ESystemException if the platform refuses: code 87
// (ERROR_INVALID_PARAMETER) for an unknown code page and for 2^31 characters or more
// on either side, 1113 (ERROR_NO_UNICODE_TRANSLATION) where the platform names no
// code, as for the UTF-7 text "+". Throws std::bad_alloc. Safe from any thread.
#pragma once

#include <string>

#include "velt/base/ConstString.h"
#include "velt/base/Export.h"

// Wide text in a code page, and text of a code page as wide text.
VELT_API std::string as_string(basic_const_string<wchar_t> source, int code_page = 0);
VELT_API std::wstring as_wstring(basic_const_string<char> source, int code_page = 0);
