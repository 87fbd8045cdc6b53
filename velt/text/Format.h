// format_string, format_wstring, format_bstr: text by a printf format. The
// formats are those of the platform's run time: in a wide format %s takes wide
// text and %hs narrow text, in a narrow one %s takes narrow text and %ls wide.
// Objects do not compile as arguments: pass the c_str() of a text.
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
#include <type_traits>

#include "velt/base/ConstString.h"
#include "velt/base/Export.h"

class _bstr_t;

namespace velt::detail {

// Objects among the arguments of a format, which would be printed as garbage.
template <class... Arguments>
concept has_objects = ((std::is_class_v<Arguments> || std::is_union_v<Arguments>) || ...);

}  // namespace velt::detail

// More than 2047 characters throw std::length_error ("string too long"), and so do a
// format that the run time refuses, such as "100%" or "%2$s", and an argument that it
// cannot format, such as wide text outside the code page for %ls.
VELT_API std::string format_string(basic_const_string<char> format, ...);
VELT_API std::wstring format_wstring(basic_const_string<wchar_t> format, ...);

// Cuts at 2047 characters, and where the run time refuses the format, without notice; ends
// at the first NUL. Throws
// _com_error with 0x8007000E if the result cannot be allocated.
VELT_API _bstr_t format_bstr(basic_const_string<wchar_t> format, ...);

template <class... Arguments>
  requires velt::detail::has_objects<Arguments...>
std::string format_string(basic_const_string<char>, Arguments const&... pass_c_str) = delete;
template <class... Arguments>
  requires velt::detail::has_objects<Arguments...>
std::wstring format_wstring(basic_const_string<wchar_t>, Arguments const&... pass_c_str) = delete;
template <class... Arguments>
  requires velt::detail::has_objects<Arguments...>
_bstr_t format_bstr(basic_const_string<wchar_t>, Arguments const&... pass_c_str) = delete;
