#include <windows.h>

#include "velt/diagnostics/ThrowWatchingInternal.h"
#include "velt/threads/SystemThreadPoolInternal.h"
#include "velt/value/HolderCacheInternal.h"

// Called by the platform under its loader lock: no wait, no call into other
// modules but the platform's own.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void* process_ends) {
  switch (reason) {
    // After the construction of the library's static objects, and before their
    // destruction.
    case DLL_PROCESS_ATTACH:
      velt::detail::start_watching_throws();
      break;
    case DLL_THREAD_DETACH:
      velt::detail::end_thread_of_holder_cache();
      break;
    case DLL_PROCESS_DETACH:
      if (!process_ends) velt::detail::end_system_thread_pool();
      velt::detail::stop_watching_throws(process_ends);
      // At the end of the process its memory goes as a whole, and threads may
      // have been stopped with the heap's lock in their hands.
      if (!process_ends) velt::detail::close_holder_cache();
      break;
    default:
      break;
  }
  return TRUE;
}
