// Integers as text and back, by the rules of the run-time functions of these names.
// They report no errors: use them where the numbers are known to be good or 0 is
// good enough, and std::from_chars elsewhere.
//
// Safe from any thread. Those that return text throw std::bad_alloc.
#pragma once

#include <string>

#include "velt/base/Export.h"

// The digits of `value` in a radix from 2 to 36, letters in lower case; any other
// radix gives an empty text. A negative value has a sign in radix 10 only. Elsewhere
// it is the bit pattern of its own width: itoa(-1, 16) is "ffffffff".
VELT_API std::string itoa(int value, int radix = 10);
VELT_API std::string ltoa(long value, int radix = 10);
VELT_API std::string i64toa(__int64 value, int radix = 10);
VELT_API std::string ui64toa(unsigned __int64 value, int radix = 10);

// The same as wide text.
VELT_API std::wstring itow(int value, int radix = 10);
VELT_API std::wstring ltow(long value, int radix = 10);
VELT_API std::wstring i64tow(__int64 value, int radix = 10);
VELT_API std::wstring ui64tow(unsigned __int64 value, int radix = 10);

// The number at the start of the text: white space, an optional sign, decimal
// digits. The rest is ignored, and so is everything behind a NUL. No number gives 0;
// a number that does not fit gives the run time's result.
VELT_API int atoi(std::string const& text);
VELT_API long atol(std::string const& text);
VELT_API int wtoi(std::wstring const& text);
