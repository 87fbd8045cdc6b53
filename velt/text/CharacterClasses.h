// isdigit, isxdigit, isalpha, isalnum for a whole text: true if it is not empty and
// every byte of it is of the class. They overload the run time's functions for one
// character.
//
// The text is in the system's ANSI code page. Each byte is classified by itself, by
// the user's locale at the time when the library was loaded. The platform decides:
// in code page 1252 the superscript 2 (0xB2) is a digit.
//
// Safe from any thread; nothing throws.
#pragma once

#include <string>

#include "velt/base/Export.h"

// Is every byte of the text of the class? False for an empty text.
VELT_API bool isdigit(std::string const& text);
VELT_API bool isxdigit(std::string const& text);
VELT_API bool isalpha(std::string const& text);
VELT_API bool isalnum(std::string const& text);
