// CComFileStream: a TFile as the platform's IStream, to hand a file to code that
// speaks COM. CComStringStream does it for text in memory.
#pragma once

#include "velt/base/Export.h"
#include "velt/os/ComStream.h"
#include "velt/os/File.h"

// One object is counted by COM and by SmartPtr alike, and whoever releases it last
// deletes it; so it is made with new.
//
// Failures of Read, Write and Seek are E_FAIL without more, as COM wants no
// exceptions; Stat throws them nevertheless. The count is atomic, all else is for
// one thread at a time.
class VELT_API CComFileStream : public velt::detail::com_stream, public TFile {
public:
  // As TFile. Not counted yet.
  CComFileStream(wchar_t const* name, unsigned long access, unsigned long share,
                 unsigned long disposition);
  // Shares the file: a duplicate of the handle.
  explicit CComFileStream(TFile const& file);

  // The copy duplicates the handle and is not counted yet. Assignment copies the
  // count as well: an object that is referred to must not be assigned to.
  CComFileStream(CComFileStream const&) = default;
  CComFileStream& operator=(CComFileStream const&) = default;

  // Closes the file. That it cannot be closed is not reported.
  ~CComFileStream() noexcept override;

  // Answers the new count. At 0 the object is deleted.
  ULONG STDMETHODCALLTYPE Release() override;

  // S_OK, S_FALSE if fewer bytes were moved than asked for, so at the end of the
  // file, or E_FAIL. The count is stored on success, and may be null.
  HRESULT STDMETHODCALLTYPE Read(void* buffer, ULONG size, ULONG* read) override;
  HRESULT STDMETHODCALLTYPE Write(void const* buffer, ULONG size, ULONG* written) override;

  // S_OK or E_FAIL. The new position is stored on success, and may be null.
  HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER distance, DWORD origin,
                                 ULARGE_INTEGER* position) override;

  // E_NOTIMPL, whatever the flags.
  HRESULT STDMETHODCALLTYPE Commit(DWORD flags) override;

  // Type and size; all else is 0, with every flag, and there is no name to free.
  // Throws ESystemException.
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD flags) override;

  // Opens or makes a file, by the numbers of TFile. Null if that fails, and Debug
  // gets a line with the name and the error. Throws ESystemException for other
  // failures, and what Debug throws.
  static stream_ptr OpenFileStream(wchar_t const* name, unsigned long access,
                                   unsigned long share, unsigned long disposition);
};
