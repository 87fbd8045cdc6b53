// Functions that make _bstr_t results. When its data record cannot be allocated,
// _bstr_t itself leaks the string and throws std::bad_alloc; these free the string
// and raise the COM error 0x8007000E (_com_error).
#pragma once

#include <string_view>

class _bstr_t;

namespace velt::detail {

// Throws _com_error with the code.
[[noreturn]] void raise_com_error(long code);

// Takes ownership of `text`, which is null or can be freed by SysFreeString. The
// result is the only reference to its data record.
_bstr_t adopt_bstr(wchar_t* text);

// A copy of exactly these characters. No characters give an allocated empty string;
// characters that cannot be allocated give a null string, without an exception.
_bstr_t make_bstr(std::wstring_view text);

// A block in the platform's layout, for SysFreeString to free: `length` characters
// that the caller fills in, and a terminator. Without memory the heap raises the
// structured exception STATUS_NO_MEMORY.
wchar_t* new_bstr_block(unsigned length);

}  // namespace velt::detail
