// The common base of the library's COM streams. Clients use CComFileStream and
// CComStringStream.
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

#include "velt/base/Export.h"
#include "velt/base/SmartPtr.h"

template <class Identity>
class _com_ptr_t;
template <class Interface, IID const* iid>
class _com_IIID;

namespace velt::detail {

// An object with one reference count, which both COM and SmartPtr use.
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
