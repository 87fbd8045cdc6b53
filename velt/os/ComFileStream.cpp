#include "velt/os/ComFileStream.h"

#include <comdef.h>

#include "velt/base/CheckInternal.h"
#include "velt/debug/DebugStream.h"

using velt::detail::check;
using velt::detail::com_stream;

namespace {

// No exception may cross a COM interface.
template <class Operation>
HRESULT result_of(Operation const& operation) {
  try {
    return operation();
  } catch (...) {
    return E_FAIL;
  }
}

HRESULT store_count(ULONG count, ULONG asked, ULONG* moved) {
  if (moved) *moved = count;
  return count == asked ? S_OK : S_FALSE;
}

void report_failure(wchar_t const* name, DWORD error) {
  if (Debug.GetEnabled())
    Debug << "CComFileStream::OpenFileStream( \"" << name << "\" ) - failed to open, error #"
          << error << "\n";
}

}  // namespace

CComFileStream::CComFileStream(wchar_t const* name, unsigned long access, unsigned long share,
                               unsigned long disposition)
    : TFile(name, access, share, disposition) {}

CComFileStream::CComFileStream(TFile const& file) : TFile(file) {}

// THandle's destructor may throw, that of a counted object must not: so nothing is left
// to THandle.
CComFileStream::~CComFileStream() {
  if (IsValidHandle()) ::CloseHandle(DetachHandle());
}

ULONG CComFileStream::Release() {
  int const left = refs.decrement();
  if (left == 0) delete this;
  return static_cast<ULONG>(left);
}

HRESULT CComFileStream::Read(void* buffer, ULONG size, ULONG* read) {
  return result_of([&] { return store_count(ReadFile(buffer, size), size, read); });
}

HRESULT CComFileStream::Write(void const* buffer, ULONG size, ULONG* written) {
  return result_of([&] { return store_count(WriteFile(buffer, size), size, written); });
}

HRESULT CComFileStream::Seek(LARGE_INTEGER distance, DWORD origin, ULARGE_INTEGER* position) {
  return result_of([&] {
    auto const reached = SetFilePointerEx(distance.QuadPart, origin);
    if (position) position->QuadPart = reached;
    return S_OK;
  });
}

HRESULT CComFileStream::Commit(DWORD) { return E_NOTIMPL; }

HRESULT CComFileStream::Stat(STATSTG* stat, DWORD) {
  BY_HANDLE_FILE_INFORMATION information;
  GetFileInformation(information);
  *stat = {};
  stat->type = STGTY_STREAM;
  stat->cbSize.LowPart = information.nFileSizeLow;
  stat->cbSize.HighPart = information.nFileSizeHigh;
  return S_OK;
}

com_stream::stream_ptr CComFileStream::OpenFileStream(wchar_t const* name, unsigned long access,
                                                      unsigned long share,
                                                      unsigned long disposition) {
  TFile file(DoNotInitialize);
  file.AttachHandle(::CreateFileW(name, access, share, nullptr, disposition,
                                  FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.IsValidHandle()) {
    report_failure(name, GetLastError());
    return {};
  }
  auto const stream = MakeCounted<CComFileStream>(file);
  stream_ptr result = stream.get();
  // Detached first: after a failure here, the destructor must not fail once more.
  check(::CloseHandle(file.DetachHandle()));
  return result;
}
