#include <windows.h>

#include "velt/value/HolderCacheInternal.h"

// The platform calls it under its loader lock: it must not wait, and may call only
// into this library and the platform's modules. Static objects are built and
// destroyed by the steps of LoadOrderInternal.h.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void*) {
  if (reason == DLL_THREAD_DETACH) velt::detail::end_thread_of_holder_cache();
  return TRUE;
}
