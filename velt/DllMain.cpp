#include <windows.h>

#include "velt/value/HolderCacheInternal.h"

// Called by the platform under its loader lock: no wait, no call into other
// modules but the platform's own.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void* process_ends) {
  switch (reason) {
    case DLL_THREAD_DETACH:
      velt::detail::end_thread_of_holder_cache();
      break;
    case DLL_PROCESS_DETACH:
      // At the end of the process its memory goes as a whole, and threads may
      // have been stopped with the heap's lock in their hands.
      if (!process_ends) velt::detail::close_holder_cache();
      break;
    default:
      break;
  }
  return TRUE;
}
