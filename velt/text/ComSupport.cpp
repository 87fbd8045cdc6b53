#include <comdef.h>

#include <cstdint>
#include <exception>
#include <new>

#include "velt/base/Export.h"
#include "velt/base/LoadOrderInternal.h"
#include "velt/text/ComStringInternal.h"

using velt::detail::raise_com_error;

namespace velt::detail {
namespace {

HANDLE text_heap() {
  static HANDLE const heap = GetProcessHeap();
  return heap;
}

VELT_LOAD_STEP(heap_of_texts) build_now const heap_found(text_heap);

}  // namespace

void raise_com_error(long code) {
  _com_issue_error(code);
  std::terminate();  // not reached: the declaration lacks [[noreturn]]
}

_bstr_t adopt_bstr(wchar_t* text) {
  try {
    return _bstr_t(text, false);
  } catch (std::bad_alloc const&) {
    SysFreeString(text);
  }
  raise_com_error(E_OUTOFMEMORY);
}

_bstr_t make_bstr(std::wstring_view text) {
  return adopt_bstr(SysAllocStringLen(text.data(), static_cast<UINT>(text.size())));
}

// Before the characters stand 32 bits for their alignment and 32 bits for their
// length in bytes.
wchar_t* new_bstr_block(unsigned length) {
  struct header {
    std::uint32_t alignment;
    std::uint32_t bytes;
  };
  auto const bytes = std::size_t(length) * sizeof(wchar_t);
  auto const block = static_cast<header*>(
      HeapAlloc(text_heap(), HEAP_GENERATE_EXCEPTIONS, sizeof(header) + bytes + sizeof(wchar_t)));
  *block = {0, static_cast<std::uint32_t>(bytes)};
  auto const characters = reinterpret_cast<wchar_t*>(block + 1);
  characters[length] = L'\0';
  return characters;
}

}  // namespace velt::detail

// <comdef.h> calls these two functions, and the compiler's own libraries lack them,
// so this library exports them to its clients. They convert the whole text, NULs
// included, in the system's ANSI code page.
namespace _com_util {

VELT_API BSTR WINAPI ConvertStringToBSTR(char const* source) {
  if (!source) return nullptr;
  int const size = MultiByteToWideChar(CP_ACP, 0, source, -1, nullptr, 0);
  if (size == 0) raise_com_error(HRESULT_FROM_WIN32(GetLastError()));
  auto const result = SysAllocStringLen(nullptr, static_cast<UINT>(size - 1));
  if (!result) raise_com_error(E_OUTOFMEMORY);
  MultiByteToWideChar(CP_ACP, 0, source, -1, result, size);
  return result;
}

// The caller frees the result with delete[].
VELT_API char* WINAPI ConvertBSTRToString(BSTR source) {
  if (!source) return nullptr;
  int const length = static_cast<int>(SysStringLen(source) + 1);
  int const size = WideCharToMultiByte(CP_ACP, 0, source, length, nullptr, 0, nullptr, nullptr);
  if (size == 0) raise_com_error(HRESULT_FROM_WIN32(GetLastError()));
  auto const result = new (std::nothrow) char[static_cast<std::size_t>(size)];
  if (!result) raise_com_error(E_OUTOFMEMORY);
  WideCharToMultiByte(CP_ACP, 0, source, length, result, size, nullptr, nullptr);
  return result;
}

}  // namespace _com_util
