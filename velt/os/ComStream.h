// What the library's COM streams have in common. Clients use CComFileStream and
// CComStringStream.
#pragma once

// Only the interface is needed, not the whole of the platform.
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

// Objects that COM and SmartPtr count together: both work on the one count.
class VELT_API com_stream : public virtual SmartPtrObj, public IStream {
public:
  // A pointer of COM; whoever uses one includes <comdef.h>.
  using stream_ptr = _com_ptr_t<_com_IIID<IStream, &IID_IStream>>;

  // For IUnknown, ISequentialStream and IStream. Otherwise E_NOINTERFACE, and
  // `out` keeps what it holds.
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override;

  // Answers the new count.
  ULONG STDMETHODCALLTYPE AddRef() override;

  // Do nothing and answer E_NOTIMPL.
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
