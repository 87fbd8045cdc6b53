// Room on the stack for handling its overflow.
#pragma once

namespace velt::detail {

// Reserves 16 KB of the calling thread's stack, which remain usable after an
// overflow. Does nothing if the platform lacks SetThreadStackGuarantee.
void guarantee_stack() noexcept;

}  // namespace velt::detail
