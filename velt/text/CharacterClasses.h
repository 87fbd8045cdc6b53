// isdigit, isxdigit, isalpha, isalnum over a whole text: true if it is not
// empty and every byte of it is of the class. They overload the run time's
// functions of one character, which stay as they are.
//
// The text is in the system's ANSI code page, and the classes are those of the
// user's locale as it was when the library was loaded, for each byte by itself:
// in code page 1252 the superscript 2 (0xB2) is a digit, as the platform says.
//
// Safe from any thread; nothing throws.
#pragma once

#include <string>

#include "velt/base/Export.h"

VELT_API bool isdigit(std::string const& text);
VELT_API bool isxdigit(std::string const& text);
VELT_API bool isalpha(std::string const& text);
VELT_API bool isalnum(std::string const& text);
