#include "velt/faults/StackGuaranteeInternal.h"

#include <windows.h>

#include <malloc.h>

#include "velt/base/EntryInternal.h"
#include "velt/base/LoadOrderInternal.h"

namespace velt::detail {
namespace {

// Null if the platform lacks the function.
VELT_LOAD_STEP(stack_guarantee_found) struct {
  decltype(::SetThreadStackGuarantee)* const SetThreadStackGuarantee =
      find_entry<BOOL WINAPI(ULONG*)>(L"kernel32.dll", "SetThreadStackGuarantee");
} const platform;

}  // namespace

// The second call is for Wine. Wine commits a new thread's whole stack, puts the
// guard at its far end, and heeds the guarantee only when a guard is set anew.
// Without the call the first overflow would find 1.4 KB left. Windows finds its
// guard in place and does nothing.
void guarantee_stack() noexcept {
  ULONG bytes = 16384;
  if (!platform.SetThreadStackGuarantee) return;
  platform.SetThreadStackGuarantee(&bytes);
  _resetstkoflw();
}

}  // namespace velt::detail
