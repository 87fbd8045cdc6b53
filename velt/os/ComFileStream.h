// CComFileStream: a TFile as the platform's IStream, for code that reads or writes
// through COM. CComStringStream does the same for text in memory.
#pragma once

#include "velt/base/Export.h"
#include "velt/os/ComStream.h"
#include "velt/os/File.h"

// COM and SmartPtr share one reference count, and the last release deletes the object,
// so create it with new.
//
// No exception may cross a COM interface, so Read, Write and Seek return E_FAIL for
// any failure; Stat throws nevertheless. The count is atomic; everything else is for
// one thread at a time.
class VELT_API CComFileStream : public velt::detail::com_stream, public TFile {
public:
  // Like the constructor of TFile. The count starts at 0.
  CComFileStream(wchar_t const* name, unsigned long access, unsigned long share,
                 unsigned long disposition);
  // Duplicates the handle of the file.
  explicit CComFileStream(TFile const& file);

  // The copy constructor duplicates the handle; the count of the copy starts at 0.
  // Assignment copies the count too, so do not assign to an object that has
  // references.
  CComFileStream(CComFileStream const&) = default;
  CComFileStream& operator=(CComFileStream const&) = default;

  // Closes the file, and does not report a failure.
  ~CComFileStream() override;

  // Returns the new count. At 0 the object is deleted.
  ULONG STDMETHODCALLTYPE Release() override;

  // S_OK; S_FALSE if fewer bytes were moved than asked for, as at the end of the file;
  // or E_FAIL. The count is stored unless the call fails; its pointer may be null.
  HRESULT STDMETHODCALLTYPE Read(void* buffer, ULONG size, ULONG* read) override;
  HRESULT STDMETHODCALLTYPE Write(void const* buffer, ULONG size, ULONG* written) override;

  // S_OK or E_FAIL. The new position is stored on success; its pointer may be null.
  HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER distance, DWORD origin,
                                 ULARGE_INTEGER* position) override;

  // E_NOTIMPL for all flags.
  HRESULT STDMETHODCALLTYPE Commit(DWORD flags) override;

  // Stores type and size; all other fields are 0, and no name needs to be freed. The
  // flags are ignored. Throws ESystemException.
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD flags) override;

  // Opens or creates a file, as TFile does. If that fails, returns null and writes a
  // line with the name and the error to Debug. Throws ESystemException for other
  // failures, and whatever Debug throws.
  static stream_ptr OpenFileStream(wchar_t const* name, unsigned long access,
                                   unsigned long share, unsigned long disposition);
};
