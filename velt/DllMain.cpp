#include <windows.h>

#include "velt/value/HolderCacheInternal.h"

// Called by the platform under its loader lock: no wait, no call into other
// modules but the platform's own. What comes and goes with the library does so by
// the steps of LoadOrderInternal.h.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void*) {
  if (reason == DLL_THREAD_DETACH) velt::detail::end_thread_of_holder_cache();
  return TRUE;
}
