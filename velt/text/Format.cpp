#include "velt/text/Format.h"

#include <comdef.h>
#include <stdio.h>

#include <cstdarg>
#include <stdexcept>

#include "velt/text/ComStringInternal.h"

namespace {

constexpr int buffer_size = 2048;
constexpr int longest_text = buffer_size - 1;

int print(char (&buffer)[buffer_size], char const* format, va_list arguments) {
  return _vsnprintf_s(buffer, buffer_size, longest_text, format, arguments);
}

int print(wchar_t (&buffer)[buffer_size], wchar_t const* format, va_list arguments) {
  return _vsnwprintf_s(buffer, buffer_size, longest_text, format, arguments);
}

template <class Char>
std::basic_string<Char> formatted(Char const* format, va_list arguments) {
  Char buffer[buffer_size];
  int const length = print(buffer, format, arguments);
  if (length < 0) throw std::length_error("string too long");
  return {buffer, static_cast<std::size_t>(length)};
}

}  // namespace

std::string format_string(basic_const_string<char> format, ...) {
  auto const terminated = format.c_str();
  va_list arguments;
  va_start(arguments, format);
  auto result = formatted(terminated, arguments);
  va_end(arguments);
  return result;
}

std::wstring format_wstring(basic_const_string<wchar_t> format, ...) {
  auto const terminated = format.c_str();
  va_list arguments;
  va_start(arguments, format);
  auto result = formatted(terminated, arguments);
  va_end(arguments);
  return result;
}

_bstr_t format_bstr(basic_const_string<wchar_t> format, ...) {
  auto const terminated = format.c_str();
  wchar_t buffer[buffer_size];
  va_list arguments;
  va_start(arguments, format);
  if (print(buffer, terminated, arguments) < 0) buffer[longest_text] = L'\0';
  va_end(arguments);
  auto const text = SysAllocString(buffer);
  if (!text) velt::detail::raise_com_error(E_OUTOFMEMORY);
  return velt::detail::adopt_bstr(text);
}
