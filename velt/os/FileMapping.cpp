#include "velt/os/FileMapping.h"

#include <windows.h>

#include <type_traits>

#include "velt/base/CheckInternal.h"
#include "velt/locks/NamedObjectInternal.h"

using velt::detail::check;
using velt::detail::store_or_throw;

namespace {

// A size of 0 is that of the file.
template <class Char>
void create(void*& handle, HANDLE file, DWORD protect, ULONGLONG size, Char const* name) {
  auto const call = [] {
    if constexpr (std::is_same_v<Char, char>)
      return &::CreateFileMappingA;
    else
      return &::CreateFileMappingW;
  }();
  store_or_throw(handle, call(file, nullptr, protect, static_cast<DWORD>(size >> 32),
                              static_cast<DWORD>(size), name));
}

}  // namespace

void TFileMapping::CreateFileMappingW(unsigned long protect, unsigned __int64 size,
                                      char const* name) {
  create(handle, INVALID_HANDLE_VALUE, protect, size, name);
}
void TFileMapping::CreateFileMappingW(unsigned long protect, unsigned __int64 size,
                                      wchar_t const* name) {
  create(handle, INVALID_HANDLE_VALUE, protect, size, name);
}

void TFileMapping::CreateFileMappingW(unsigned long protect, void* file, char const* name) {
  create(handle, file, protect, 0, name);
}
void TFileMapping::CreateFileMappingW(unsigned long protect, void* file, wchar_t const* name) {
  create(handle, file, protect, 0, name);
}

void TFileMapping::OpenFileMappingW(char const* name, unsigned long access) {
  store_or_throw(handle, ::OpenFileMappingA(access, FALSE, name));
}
void TFileMapping::OpenFileMappingW(wchar_t const* name, unsigned long access) {
  store_or_throw(handle, ::OpenFileMappingW(access, FALSE, name));
}

void* TFileMapping::MapViewOfFile(unsigned long access, unsigned long offset,
                                  unsigned long size) {
  void* const view = ::MapViewOfFile(handle, access, 0, offset, size);
  check(view);
  return view;
}
