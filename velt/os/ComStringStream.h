// CComStringStream: text in memory as the platform's IStream, to hand it to code
// that speaks COM. CComFileStream does it for files.
#pragma once

#include <sstream>

#include "velt/base/Export.h"
#include "velt/os/ComStream.h"

// The contents are bytes in a std::stringstream, with one position to read at and
// another to write at. What that stream does not do, it does not do here either:
// behind a read that came short, it reads, writes and moves no more.
//
// One object is counted by COM and by SmartPtr alike, but only SmartPtr deletes
// it: hold one besides the pointers of COM, or the object stays. Nothing here
// throws but OpenStringStream. The count is atomic, all else is for one thread at
// a time.
class VELT_API CComStringStream : public velt::detail::com_stream {
public:
  // Empty, and not counted yet.
  CComStringStream();
  ~CComStringStream() override;

  // Answers the new count, and never deletes.
  ULONG STDMETHODCALLTYPE Release() override;

  // S_FALSE if the stream has failed, as it has when fewer bytes were left than
  // asked for. The count may be null.
  HRESULT STDMETHODCALLTYPE Read(void* buffer, ULONG size, ULONG* read) override;

  // Always S_OK and all of `size`. The count may be null.
  HRESULT STDMETHODCALLTYPE Write(void const* buffer, ULONG size, ULONG* written) override;

  // Always S_OK. Moves both positions: to a place counted from the start, by a
  // distance each from where it is, or to a place counted from the end; does
  // nothing for an unknown origin. `position`, which may be null, gets the one to
  // read at: all bits set once the stream has failed.
  HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER distance, DWORD origin,
                                 ULARGE_INTEGER* position) override;

  // S_OK for no flags, else E_NOTIMPL.
  HRESULT STDMETHODCALLTYPE Commit(DWORD flags) override;

  // Type and size, where the size is the distance from the position to read at to
  // the one to write at: what was written and not read yet. All else is 0, with
  // every flag.
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD flags) override;

  // A stream with a copy of all of the text in `source`, whatever was read of it.
  // Both positions are at its start. The object stays unless a SmartPtr takes it
  // too. Throws std::bad_alloc.
  static stream_ptr OpenStringStream(std::stringstream const& source);

private:
  std::stringstream Contents;
};
