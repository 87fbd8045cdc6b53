// as_string, as_wstring: wide text as narrow text of a code page, and back.
//
// `code_page` is a number of the platform's; 0 is the system's ANSI code page.
// The view needs no terminator, and NULs in it are converted like any other
// character. Characters that the code page lacks become its default character;
// bytes that stand for nothing become what the platform makes of them.
//
// An empty view gives an empty text without a call to the platform, whatever
// the code page. Throws ESystemException if the platform refuses, as it does for
// a code page that it does not know and for text of 2 G characters or more, and
// std::bad_alloc. Safe from any thread.
#pragma once

#include <string>

#include "velt/base/ConstString.h"
#include "velt/base/Export.h"

VELT_API std::string as_string(basic_const_string<wchar_t> source, int code_page = 0);
VELT_API std::wstring as_wstring(basic_const_string<char> source, int code_page = 0);
