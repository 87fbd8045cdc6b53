// CComFileStream and CComStringStream: a file and a text in memory as the platform's
// IStream, for code that reads or writes through COM.
#pragma once

// Only IStream is needed, not all of the platform's headers.
#pragma push_macro("COM_NO_WINDOWS_H")
#pragma push_macro("RPC_NO_WINDOWS_H")
#undef COM_NO_WINDOWS_H
#undef RPC_NO_WINDOWS_H
#define COM_NO_WINDOWS_H
#define RPC_NO_WINDOWS_H
#include <windef.h>
#include <winbase.h>
#include <combaseapi.h>
#pragma pop_macro("RPC_NO_WINDOWS_H")
#pragma pop_macro("COM_NO_WINDOWS_H")

#include <sstream>

#include "velt/base/Export.h"
#include "velt/base/SmartPtr.h"
#include "velt/os/File.h"

template <class Identity>
class _com_ptr_t;
template <class Interface, IID const* iid>
class _com_IIID;

namespace velt::detail {

// The common base: an object with one reference count, which both COM and SmartPtr use.
class VELT_API com_stream : public virtual SmartPtrObj, public IStream {
public:
  // A COM smart pointer. Code that uses one includes <comdef.h>.
  using stream_ptr = _com_ptr_t<_com_IIID<IStream, &IID_IStream>>;

  // Knows IUnknown, ISequentialStream and IStream. For any other interface, returns
  // E_NOINTERFACE and leaves `out` unchanged.
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override;

  // Returns the new count.
  ULONG STDMETHODCALLTYPE AddRef() override;

  // These do nothing and return E_NOTIMPL.
  HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER size) override;
  HRESULT STDMETHODCALLTYPE CopyTo(IStream* target, ULARGE_INTEGER size, ULARGE_INTEGER* read,
                                   ULARGE_INTEGER* written) override;
  HRESULT STDMETHODCALLTYPE Revert() override;
  HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size,
                                       DWORD type) override;
  HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size,
                                         DWORD type) override;
  HRESULT STDMETHODCALLTYPE Clone(IStream** copy) override;
};

}  // namespace velt::detail

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
