// Reads the compiler's exception tables. For each call site of a function they hold
// a landing pad and actions, which run when an exception passes that place.
#pragma once

#include <windows.h>

#include <optional>

namespace velt::detail {

struct call_site {
  ULONG64 landing_pad;  // 0 if there is none
  BYTE const* actions;  // null if the landing pad only cleans up
  bool operator==(call_site const&) const = default;
};

// The entry of a function's table that covers the offset in the function. Prologues
// have no entry, nor have places where the compiler believes that nothing can throw
// or knows that nothing may.
std::optional<call_site> find_call_site(void const* table, ULONG64 offset) noexcept;

// Whether the actions are those of a try block, whatever it catches.
bool has_catch(BYTE const* actions) noexcept;

// Whether the actions are those of an exception specification, such as `throw()`.
bool has_specification(BYTE const* actions) noexcept;

}  // namespace velt::detail
