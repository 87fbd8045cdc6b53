#include "velt/base/LibraryReferenceInternal.h"

#include <process.h>
#include <windows.h>

#include <atomic>

#include "velt/base/CheckInternal.h"

namespace velt::detail {
namespace {

constinit std::atomic<bool> unloads = false;

HMODULE own_module(DWORD flags) noexcept {
  HMODULE module = nullptr;
  GetModuleHandleExW(flags | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                     reinterpret_cast<LPCWSTR>(&unloads), &module);
  return module;
}

HMODULE own_module_as_it_is() noexcept {
  return own_module(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT);
}

}  // namespace

void hold_library() {
  check(own_module(0));
}

void release_library() noexcept { FreeLibrary(own_module_as_it_is()); }

void leave_library_and_end_thread() noexcept {
  FreeLibraryAndExitThread(own_module_as_it_is(), 0);
}

// The universal run time takes a reference of its own for each thread that it begins in
// the library. Only its own end of a thread releases that one.
void leave_library_and_end_run_time_thread() noexcept {
#ifdef _UCRT
  release_library();
  _endthreadex(0);
#else
  leave_library_and_end_thread();
#endif
}

bool library_unloads() noexcept { return unloads; }
void note_that_library_unloads() noexcept { unloads = true; }

}  // namespace velt::detail
