#include "velt/os/ComStream.h"

#include <windows.h>

namespace velt::detail {

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

}  // namespace velt::detail
