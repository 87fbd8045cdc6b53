// Integers as text and back, by the rules of the run-time functions of like
// names. std::to_chars and std::from_chars tell errors; these do not: they are
// for numbers that are known to be good, and for callers who want 0 otherwise.
//
// Safe from any thread. Those that return text throw std::bad_alloc.
#pragma once

#include <string>

#include "velt/base/Export.h"

// The digits of `value` in `radix`, from 2 to 36, letters in lower case. In
// radix 10 a negative value has a sign; in any other it is written as the bit
// pattern of its own width, so that itoa(-1, 16) is "ffffffff". Any other radix
// gives an empty text.
VELT_API std::string itoa(int value, int radix = 10);
VELT_API std::string ltoa(long value, int radix = 10);
VELT_API std::string i64toa(__int64 value, int radix = 10);
VELT_API std::string ui64toa(unsigned __int64 value, int radix = 10);

VELT_API std::wstring itow(int value, int radix = 10);
VELT_API std::wstring ltow(long value, int radix = 10);
VELT_API std::wstring i64tow(__int64 value, int radix = 10);
VELT_API std::wstring ui64tow(unsigned __int64 value, int radix = 10);

// The number at the start of the text, which ends at its first NUL: white
// space, an optional sign, decimal digits; what follows does not matter. No
// number gives 0. A number that does not fit gives what the run time gives.
VELT_API int atoi(std::string const& text);
VELT_API long atol(std::string const& text);
VELT_API int wtoi(std::wstring const& text);
