#include "velt/text/Encoding.h"

#include <windows.h>

#include <cassert>
#include <climits>

#include "velt/base/CheckInternal.h"

using velt::detail::check;

namespace {

// On some platforms the size of a result of 2 GB or more wraps. And not every refusal
// leaves a code, while the thread may hold an older one: `measure` asks again with
// that one cleared.
template <class Measure>
[[noreturn, gnu::noinline]] void throw_refusal(int size, Measure measure) {
  if (size < 0) ThrowSystemException(ERROR_INVALID_PARAMETER);
  SetLastError(ERROR_SUCCESS);
  measure();
  if (GetLastError() == ERROR_SUCCESS) ThrowSystemException(ERROR_NO_UNICODE_TRANSLATION);
  ThrowSystemException();
}

// `convert` is called as (source, length, target, size) and returns the size, 0
// meaning failure; with a null target it only measures.
template <class Target, class Source, class Convert>
std::basic_string<Target> converted(basic_const_string<Source> source, Convert convert) {
  if (source.length == 0) return {};
  assert(source.data);
  if (source.length > INT_MAX) ThrowSystemException(ERROR_INVALID_PARAMETER);
  auto const length = static_cast<int>(source.length);
  int const size = convert(source.data, length, nullptr, 0);
  if (size <= 0) throw_refusal(size, [=] { convert(source.data, length, nullptr, 0); });
  std::basic_string<Target> result(static_cast<std::size_t>(size), Target());
  check(convert(source.data, length, result.data(), size));
  return result;
}

}  // namespace

std::string as_string(basic_const_string<wchar_t> source, int code_page) {
  return converted<char>(source, [=](wchar_t const* text, int length, char* target, int size) {
    return WideCharToMultiByte(code_page, 0, text, length, target, size, nullptr, nullptr);
  });
}

std::wstring as_wstring(basic_const_string<char> source, int code_page) {
  return converted<wchar_t>(source, [=](char const* text, int length, wchar_t* target, int size) {
    return MultiByteToWideChar(code_page, 0, text, length, target, size);
  });
}
