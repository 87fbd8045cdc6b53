// Ends the pool that all parts of a program share.
#pragma once

namespace velt::detail {

// For the unloading of the library from a process that goes on. No worker runs the
// library's code then, since each keeps it loaded.
void end_system_thread_pool() noexcept;

}  // namespace velt::detail
