// CComStringStream: text in memory as the platform's IStream, for code that reads or
// writes through COM. CComFileStream does the same for files.
#pragma once

#include <sstream>

#include "velt/base/Export.h"
#include "velt/os/ComStream.h"

// The contents are the bytes of a std::stringstream, which has a read position and a
// write position. Its error state applies here too: after a short read the stream
// no longer reads, writes or seeks.
//
// COM and SmartPtr share one reference count, but only SmartPtr deletes the object: an
// object that is held through COM alone stays allocated. Only OpenStringStream throws.
// The count is atomic; everything else is for one thread at a time.
class VELT_API CComStringStream : public velt::detail::com_stream {
public:
  // An empty stream. The count starts at 0.
  CComStringStream();
  ~CComStringStream() override;

  // Returns the new count. Never deletes the object.
  ULONG STDMETHODCALLTYPE Release() override;

  // S_OK; S_FALSE if the stream has failed, as it does when fewer bytes are left than
  // asked for. The pointer to the count may be null.
  HRESULT STDMETHODCALLTYPE Read(void* buffer, ULONG size, ULONG* read) override;

  // Always S_OK, and always stores `size` as the count, whose pointer may be null.
  HRESULT STDMETHODCALLTYPE Write(void const* buffer, ULONG size, ULONG* written) override;

  // Always S_OK. Moves both positions: relative to the start, each relative to itself,
  // or relative to the end. Does nothing for an unknown origin. Stores the read position
  // in `position`, which may be null: all bits set once the stream has failed.
  HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER distance, DWORD origin,
                                 ULARGE_INTEGER* position) override;

  // S_OK if `flags` is 0, otherwise E_NOTIMPL.
  HRESULT STDMETHODCALLTYPE Commit(DWORD flags) override;

  // Stores type and size; all other fields are 0. The size is the write position minus
  // the read position: the bytes written and not read yet. The flags are ignored.
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD flags) override;

  // A stream with a copy of all text in `source`, including text already read from it.
  // Both positions are at the start. The object stays allocated unless a SmartPtr
  // takes it too. Throws std::bad_alloc.
  static stream_ptr OpenStringStream(std::stringstream const& source);

private:
  std::stringstream Contents;
};
