#include "velt/threads/StackGuaranteeInternal.h"

#include <windows.h>

#include <malloc.h>

namespace velt::detail {
namespace {

using set_guarantee = BOOL(WINAPI*)(ULONG* bytes);

set_guarantee look_up() noexcept {
  auto const entry =
      GetProcAddress(GetModuleHandleA("kernel32.dll"), "SetThreadStackGuarantee");
  return reinterpret_cast<set_guarantee>(reinterpret_cast<void*>(entry));
}

set_guarantee const SetThreadStackGuarantee = look_up();

}  // namespace

// The second call is for Wine, which commits a new thread's stack whole with the
// guard at its far end and heeds the guarantee only when a guard is set anew: the
// first overflow would find 1.4 KB left. Windows finds its guard in place and does
// nothing.
void guarantee_stack() noexcept {
  ULONG bytes = 16384;
  if (!SetThreadStackGuarantee) return;
  SetThreadStackGuarantee(&bytes);
  _resetstkoflw();
}

}  // namespace velt::detail
