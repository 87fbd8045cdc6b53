#include "velt/locks/Handle.h"

#include <windows.h>

#include <utility>

#include "velt/base/CheckInternal.h"

using velt::detail::check;

THandle::THandle(void* h) : handle(none()) { share(h); }
THandle::THandle(THandle const& other) : handle(none()) { share(other.handle); }

THandle::~THandle() noexcept(false) { close_if_held(); }

THandle& THandle::operator=(void* h) {
  close_if_held();
  share(h);
  return *this;
}

THandle& THandle::operator=(THandle const& other) {
  close_if_held();
  share(other.handle);
  return *this;
}

void THandle::CloseHandle() {
  check(::CloseHandle(handle));
  handle = none();
}

void THandle::AttachHandle(void* h) {
  close_if_held();
  handle = h;
}

void* THandle::DetachHandle() noexcept { return std::exchange(handle, none()); }

unsigned long THandle::WaitForSingleObject(unsigned long time, int alertable) const {
  DWORD const result = ::WaitForSingleObjectEx(handle, time, alertable);
  check(result != WAIT_FAILED);
  return result;
}

void THandle::close_if_held() {
  if (IsValidHandle())
    CloseHandle();
  else
    handle = none();
}

void THandle::share(void* h) {
  if (!IsValidHandle(h)) {
    handle = h;
    return;
  }
  HANDLE const process = GetCurrentProcess();
  HANDLE duplicate;
  check(DuplicateHandle(process, h, process, &duplicate, 0, FALSE, DUPLICATE_SAME_ACCESS));
  handle = duplicate;
}
