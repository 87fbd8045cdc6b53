#include "velt/os/ComStreams.h"

#include <comdef.h>

#include <cstddef>
#include <cstring>

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

std::ios_base::seekdir const* direction(DWORD origin) {
  static constexpr std::ios_base::seekdir known[] = {std::ios_base::beg, std::ios_base::cur,
                                                     std::ios_base::end};
  return origin <= STREAM_SEEK_END ? &known[origin] : nullptr;
}

constexpr std::streamoff failed = -1;

// Returns the position for reading, or `failed`.
std::streamoff move(std::stringbuf& buffer, std::streamoff by, std::ios_base::seekdir from) {
  if (from != std::ios_base::cur) return buffer.pubseekoff(by, from);
  std::streamoff const reached = buffer.pubseekoff(by, from, std::ios_base::in);
  bool const is_done = reached != failed &&
                       buffer.pubseekoff(by, from, std::ios_base::out) != std::streampos(failed);
  return is_done ? reached : failed;
}

// One instruction copies a block of this size faster than the platform's memcpy.
constexpr std::size_t large_block = 1024;

void copy_block(char* to, char const* from, std::size_t size) {
  std::size_t const words = size < large_block ? 0 : size / 8, done = words * 8;
  __movsq(reinterpret_cast<DWORD64*>(to), reinterpret_cast<DWORD64 const*>(from), words);
  std::memcpy(to + done, from + done, size - done);
}

// Knows the pointers of a buffer, which only its derived classes may ask for.
struct buffer_pointers : std::stringbuf {
  // Reads if that many bytes lie ready. False: nothing is done.
  static bool take(std::stringbuf& buffer, void* to, ULONG size) {
    char const* const next = (buffer.*&buffer_pointers::gptr)();
    if (size > LONG_MAX || (buffer.*&buffer_pointers::egptr)() - next < std::streamsize(size))
      return false;
    copy_block(static_cast<char*>(to), next, size);
    (buffer.*&buffer_pointers::gbump)(static_cast<int>(size));
    return true;
  }
};

}  // namespace

HRESULT com_stream::QueryInterface(REFIID iid, void** out) {
  if (iid != IID_IUnknown && iid != IID_ISequentialStream && iid != IID_IStream)
    return E_NOINTERFACE;
  AddRef();
  *out = static_cast<IStream*>(this);
  return S_OK;
}

ULONG com_stream::AddRef() { return static_cast<ULONG>(refs.increment()); }

HRESULT com_stream::SetSize(ULARGE_INTEGER) { return E_NOTIMPL; }
HRESULT com_stream::CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) {
  return E_NOTIMPL;
}
HRESULT com_stream::Revert() { return E_NOTIMPL; }
HRESULT com_stream::LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) { return E_NOTIMPL; }
HRESULT com_stream::UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) { return E_NOTIMPL; }
HRESULT com_stream::Clone(IStream**) { return E_NOTIMPL; }

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

CComStringStream::CComStringStream() = default;
CComStringStream::~CComStringStream() = default;

ULONG CComStringStream::Release() { return static_cast<ULONG>(refs.decrement()); }

// Read and Seek use the buffer directly. The operations of std::stringstream around it
// would cost a twentieth of the time of reading a text in blocks.
HRESULT CComStringStream::Read(void* buffer, ULONG size, ULONG* read) {
  if (Contents.good() && buffer_pointers::take(*Contents.rdbuf(), buffer, size)) {
    if (read) *read = size;
    return S_OK;
  }
  std::streamsize count = 0;
  if (Contents.good()) count = Contents.rdbuf()->sgetn(static_cast<char*>(buffer), size);
  if (count < size || !Contents.good()) Contents.setstate(std::ios_base::failbit);
  if (read) *read = static_cast<ULONG>(count);
  return Contents.fail() ? S_FALSE : S_OK;
}

HRESULT CComStringStream::Write(void const* buffer, ULONG size, ULONG* written) {
  Contents.write(static_cast<char const*>(buffer), size);
  if (written) *written = size;
  return S_OK;
}

HRESULT CComStringStream::Seek(LARGE_INTEGER distance, DWORD origin, ULARGE_INTEGER* position) {
  auto const from = direction(origin);
  if (!from) return S_OK;
  bool const is_good = Contents.good();
  std::streamoff const reached = is_good ? move(*Contents.rdbuf(), distance.QuadPart, *from)
                                         : std::streamoff(Contents.tellg());
  if (is_good && reached == failed) Contents.setstate(std::ios_base::failbit);
  if (position) position->QuadPart = static_cast<ULONGLONG>(reached);
  return S_OK;
}

HRESULT CComStringStream::Commit(DWORD flags) { return flags == 0 ? S_OK : E_NOTIMPL; }

HRESULT CComStringStream::Stat(STATSTG* stat, DWORD) {
  *stat = {};
  stat->type = STGTY_STREAM;
  stat->cbSize.QuadPart = static_cast<ULONGLONG>(Contents.tellp() - Contents.tellg());
  return S_OK;
}

com_stream::stream_ptr CComStringStream::OpenStringStream(std::stringstream const& source) {
  auto const stream = MakeCounted<CComStringStream>();
  stream->Contents.str(source.str());
  return stream.get();
}
