// Shadow stacks in user mode: the processor keeps the addresses to which functions return.
#pragma once

#include <windows.h>

namespace velt::detail {

inline bool has_shadow_stacks() noexcept {
  PROCESS_MITIGATION_USER_SHADOW_STACK_POLICY policy{};
  return GetProcessMitigationPolicy(GetCurrentProcess(), ProcessUserShadowStackPolicy, &policy,
                                    sizeof policy) &&
         policy.EnableUserShadowStack;
}

// Whether a thread may continue at a place that no call has left. Asked first when the
// library is loaded, so later calls need little of the stack.
inline bool may_redirect_threads() noexcept {
  static bool const may = !has_shadow_stacks();
  return may;
}

}  // namespace velt::detail
