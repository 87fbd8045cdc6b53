#include "velt/os/ComStringStream.h"

#include <comdef.h>

using velt::detail::com_stream;

namespace {

std::ios_base::seekdir const* direction(DWORD origin) {
  static constexpr std::ios_base::seekdir known[] = {std::ios_base::beg, std::ios_base::cur,
                                                     std::ios_base::end};
  return origin <= STREAM_SEEK_END ? &known[origin] : nullptr;
}

bool move(std::stringbuf& buffer, std::streamoff by, std::ios_base::seekdir from) {
  std::streampos const failed(-1);
  if (from != std::ios_base::cur) return buffer.pubseekoff(by, from) != failed;
  return buffer.pubseekoff(by, from, std::ios_base::in) != failed &&
         buffer.pubseekoff(by, from, std::ios_base::out) != failed;
}

}  // namespace

CComStringStream::CComStringStream() = default;
CComStringStream::~CComStringStream() = default;

ULONG CComStringStream::Release() { return static_cast<ULONG>(refs.decrement()); }

// Read and Seek use the buffer directly. The operations of std::stringstream around it
// would cost a twentieth of the time of reading a text in blocks.
HRESULT CComStringStream::Read(void* buffer, ULONG size, ULONG* read) {
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
  if (Contents.good() && !move(*Contents.rdbuf(), distance.QuadPart, *from))
    Contents.setstate(std::ios_base::failbit);
  if (position) position->QuadPart = static_cast<ULONGLONG>(std::streamoff(Contents.tellg()));
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
