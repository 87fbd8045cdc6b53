#include "velt/os/File.h"

#include <windows.h>

#include "velt/base/CheckInternal.h"

using velt::detail::check;

namespace {

// The forms with a narrow and with a wide name differ in the platform's call alone.
template <class Call, class Char>
void create(void*& handle, Call call, Char const* name, DWORD access, DWORD share,
            DWORD disposition) {
  handle = call(name, access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle != INVALID_HANDLE_VALUE) return;
  int const code = velt::detail::last_error();
  if (!name) throw ESystemException(code);
  throw ESystemException(code, {"FileName", name});
}

}  // namespace

TFile::TFile(char const* name, unsigned long access, unsigned long share,
             unsigned long disposition) {
  CreateFileW(name, access, share, disposition);
}
TFile::TFile(wchar_t const* name, unsigned long access, unsigned long share,
             unsigned long disposition) {
  CreateFileW(name, access, share, disposition);
}

void TFile::CreateFileW(char const* name, unsigned long access, unsigned long share,
                        unsigned long disposition) {
  create(handle, &::CreateFileA, name, access, share, disposition);
}
void TFile::CreateFileW(wchar_t const* name, unsigned long access, unsigned long share,
                        unsigned long disposition) {
  create(handle, &::CreateFileW, name, access, share, disposition);
}

void TFile::OpenFile(char const* name, unsigned long access, unsigned long share,
                     unsigned long disposition) {
  CreateFileW(name, access, share, disposition);
}
void TFile::OpenFile(wchar_t const* name, unsigned long access, unsigned long share,
                     unsigned long disposition) {
  CreateFileW(name, access, share, disposition);
}

unsigned long TFile::ReadFile(void* buffer, unsigned long size) {
  unsigned long read;
  ReadFile(buffer, size, read);
  return read;
}
void TFile::ReadFile(void* buffer, unsigned long size, unsigned long& read) {
  check(::ReadFile(handle, buffer, size, &read, nullptr));
}

unsigned long TFile::WriteFile(void const* buffer, unsigned long size) {
  unsigned long written;
  WriteFile(buffer, size, written);
  return written;
}
void TFile::WriteFile(void const* buffer, unsigned long size, unsigned long& written) {
  check(::WriteFile(handle, buffer, size, &written, nullptr));
}

unsigned long TFile::SetFilePointer(long distance, unsigned long method) noexcept {
  return ::SetFilePointer(handle, distance, nullptr, method);
}

unsigned __int64 TFile::SetFilePointerEx(__int64 distance, unsigned long method) {
  LARGE_INTEGER by, position;
  by.QuadPart = distance;
  check(::SetFilePointerEx(handle, by, &position, method));
  return static_cast<unsigned __int64>(position.QuadPart);
}

unsigned __int64 TFile::GetFileSize() const noexcept {
  DWORD high = 0;
  DWORD const low = ::GetFileSize(handle, &high);
  return ULONGLONG{high} << 32 | low;
}

void TFile::GetFileInformation(_BY_HANDLE_FILE_INFORMATION& information) const {
  check(GetFileInformationByHandle(handle, &information));
}

_FILETIME TFile::GetLastWriteTime() const {
  BY_HANDLE_FILE_INFORMATION information;
  GetFileInformation(information);
  return information.ftLastWriteTime;
}

void TFile::FlushFile() {
  check(FlushFileBuffers(handle));
}
