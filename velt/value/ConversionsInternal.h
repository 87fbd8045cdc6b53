// Conversions between the element types, for the pairs of the strict tables, and
// comparison of elements.
#pragma once

#include <comutil.h>

#include <concepts>
#include <string>

#include "velt/value/ElementTypes.h"

namespace velt::detail {

void convert_text(std::string const& from, std::wstring& to);
void convert_text(std::wstring const& from, std::string& to);
// Up to the first NUL.
void convert_text(std::string const& from, _bstr_t& to);
void convert_text(std::wstring const& from, _bstr_t& to);
void convert_text(_bstr_t const& from, std::wstring& to);
// The narrow text, cut to the number of wide characters.
void convert_text(_bstr_t const& from, std::string& to);

// The same as a raw string, which the caller frees with SysFreeString. Throw the
// COM error 0x8007000E if there is no memory.
BSTR new_bstr(std::string const& text);
BSTR new_bstr(std::wstring const& text);

template <class To, class From>
To convert(From const& from) {
  if constexpr (is_text<To> && !std::same_as<To, From>) {
    To to;
    convert_text(from, to);
    return to;
  } else {
    return static_cast<To>(from);
  }
}

template <class T>
bool element_equal(T const& a, T const& b) {
  return a == b;
}

template <class T>
bool element_less(T const& a, T const& b) {
  return a < b;
}

// By UTF-16 code units and then by length; null counts as empty.
bool element_equal(_bstr_t const& a, _bstr_t const& b);
bool element_less(_bstr_t const& a, _bstr_t const& b);

}  // namespace velt::detail
