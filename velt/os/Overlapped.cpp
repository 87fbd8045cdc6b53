#include "velt/os/Overlapped.h"

#include <windows.h>

#include "velt/base/CheckInternal.h"
#include "velt/exceptions/ExceptionFamily.h"

using velt::detail::check;

namespace {

// An operation has started well if it has ended or is pending.
void expect_started(BOOL ended) {
  check(ended || GetLastError() == ERROR_IO_PENDING);
}

}  // namespace

TOverlapped<TFile>::~TOverlapped() noexcept(false) {
  if (hEvent) ::CloseHandle(hEvent);
}

void TOverlapped<TFile>::SetOffset(unsigned __int64 position) noexcept {
  Offset = static_cast<DWORD>(position);
  OffsetHigh = static_cast<DWORD>(position >> 32);
}

void TOverlapped<TFile>::SetEvent(void* event) {
  if (hEvent) ::CloseHandle(hEvent);
  hEvent = nullptr;
  if (!event) return;
  HANDLE const process = GetCurrentProcess();
  check(DuplicateHandle(process, event, process, &hEvent, 0, FALSE, DUPLICATE_SAME_ACCESS));
}

unsigned long TOverlapped<TFile>::ReadFile(void* buffer, unsigned long size) {
  unsigned long read = 0;
  ReadFile(buffer, size, read);
  return read;
}
void TOverlapped<TFile>::ReadFile(void* buffer, unsigned long size, unsigned long& read) {
  expect_started(::ReadFile(handle, buffer, size, &read, this));
}

unsigned long TOverlapped<TFile>::WriteFile(void const* buffer, unsigned long size) {
  unsigned long written = 0;
  WriteFile(buffer, size, written);
  return written;
}
void TOverlapped<TFile>::WriteFile(void const* buffer, unsigned long size,
                                   unsigned long& written) {
  expect_started(::WriteFile(handle, buffer, size, &written, this));
}

bool TOverlapped<TFile>::GetOverlappedResult(unsigned long& moved, bool wait) {
  if (::GetOverlappedResult(handle, this, &moved, wait)) return true;
  if (GetLastError() == ERROR_IO_INCOMPLETE) return false;
  ThrowSystemException();
}

bool TOverlapped<TFile>::HasIoCompleted() const noexcept {
  return static_cast<DWORD>(Internal) != static_cast<DWORD>(STATUS_PENDING);
}

void TOverlapped<TFile>::CancelIo() {
  check(::CancelIo(handle));
}
