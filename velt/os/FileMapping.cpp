#include "velt/os/FileMapping.h"

#include <windows.h>

#include "velt/base/CheckInternal.h"
#include "velt/locks/NamedObjectInternal.h"

using velt::detail::check;
using velt::detail::store_or_throw;

namespace {

// The forms with a narrow and with a wide name differ in the platform's call alone.
template <class Call, class Char>
void create(void*& handle, Call call, HANDLE file, DWORD protect, ULONGLONG size,
            Char const* name) {
  store_or_throw(handle, call(file, nullptr, protect, static_cast<DWORD>(size >> 32),
                              static_cast<DWORD>(size), name));
}

constexpr ULONGLONG size_of_file = 0;

}  // namespace

void TFileMapping::CreateFileMappingW(unsigned long protect, unsigned __int64 size,
                                      char const* name) {
  create(handle, &::CreateFileMappingA, INVALID_HANDLE_VALUE, protect, size, name);
}
void TFileMapping::CreateFileMappingW(unsigned long protect, unsigned __int64 size,
                                      wchar_t const* name) {
  create(handle, &::CreateFileMappingW, INVALID_HANDLE_VALUE, protect, size, name);
}

void TFileMapping::CreateFileMappingW(unsigned long protect, void* file, char const* name) {
  create(handle, &::CreateFileMappingA, file, protect, size_of_file, name);
}
void TFileMapping::CreateFileMappingW(unsigned long protect, void* file, wchar_t const* name) {
  create(handle, &::CreateFileMappingW, file, protect, size_of_file, name);
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
