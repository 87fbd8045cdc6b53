// Where a call of the platform's heap ends. An overflow inside such a call leaves the
// heap's lock taken, and every thread that allocates waits for it.
#pragma once

#include <windows.h>

namespace velt::detail {

// If the place lies in a call of the heap, moves it behind that call and returns where
// the stack holds the return address. Otherwise returns null. The walker begins at the
// place.
ULONG64* leave_heap_call(CONTEXT& place, CONTEXT& walker) noexcept;

}  // namespace velt::detail
