// Memory for the holders of values. A holder is small and lives shortly, so its
// block comes from a list of free blocks of the calling thread, without a lock. A
// thread that frees more than it makes hands its surplus to a depot in batches, for
// threads that make more than they free. What the depot does not take goes back to
// the heap, and so does all that an ending thread still keeps.
#pragma once

#include <cstddef>
#include <cstdint>  // __int64

#include "velt/base/Export.h"

namespace velt::detail {

// Throws std::bad_alloc. Both leave the thread's last error alone.
void* allocate_holder(std::size_t size);
void free_holder(void* block, std::size_t size) noexcept;

// To be called when a thread ends, and when the library is unloaded from a
// process that goes on. Holders can be made and freed afterwards: by the heap.
void end_thread_of_holder_cache() noexcept;
void close_holder_cache() noexcept;

// For tests. Both are exact only while no other thread makes or frees values.

// Holders of values that are alive.
VELT_API __int64 live_holders() noexcept;
// Free blocks that the threads and the depot keep for later.
VELT_API __int64 kept_holder_blocks() noexcept;

}  // namespace velt::detail
