// The tables in which the compiler tells what each place of a function needs when an
// exception passes it: for every call site a landing pad and actions.
#pragma once

#include <windows.h>

#include <optional>

namespace velt::detail {

struct call_site {
  ULONG64 landing_pad;  // 0 if there is none
  BYTE const* actions;  // null if there is only cleaning up to be done
  bool operator==(call_site const&) const = default;
};

// The entry of a function's table that covers the offset in the function. None for
// prologues, and for places where the compiler believes that nothing can throw or
// knows that nothing may.
std::optional<call_site> find_call_site(void const* table, ULONG64 offset) noexcept;

// Are the actions those of a try block, whatever it catches?
bool has_catch(BYTE const* actions) noexcept;

}  // namespace velt::detail
