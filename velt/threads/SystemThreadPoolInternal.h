// The end of the pool that all parts of a program share.
#pragma once

namespace velt::detail {

// Called when the library is unloaded from a process that goes on. No worker is
// left in the library's code then, as each keeps it loaded.
void end_system_thread_pool() noexcept;

}  // namespace velt::detail
