// Making of _bstr_t results. The COM support classes leak the string and throw
// std::bad_alloc when their data record cannot be allocated; these free the
// string and raise the COM error 0x8007000E (_com_error) instead.
#pragma once

#include <string_view>

class _bstr_t;

namespace velt::detail {

// Throws _com_error with the code.
[[noreturn]] void raise_com_error(long code);

// Takes over `text`, which SysFreeString can free or which is null. The result
// is the only reference to its data record.
_bstr_t adopt_bstr(wchar_t* text);

// A copy of exactly these characters, which is an allocated string also when it
// is empty. If the characters cannot be allocated nothing is raised, and the
// result holds a null string.
_bstr_t make_bstr(std::wstring_view text);

// A string of `length` characters in the platform's layout, terminated and
// otherwise not filled in, that SysFreeString can free. If there is no memory
// the heap raises the structured exception STATUS_NO_MEMORY.
wchar_t* new_bstr_block(unsigned length);

}  // namespace velt::detail
