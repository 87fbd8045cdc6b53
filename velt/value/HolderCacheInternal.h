// Memory for the holders of values. A holder is small and lives shortly, so its
// block comes from a list of free blocks of the calling thread, without a lock.
// A thread that frees more than it makes hands its surplus on in batches, for
// threads that make more than they free; what no thread wants goes back to the
// heap, and so does all that an ending thread still keeps.
#pragma once

#include <cstddef>

namespace velt::detail {

void* allocate_holder(std::size_t size);
void free_holder(void* block, std::size_t size) noexcept;

// To be called when a thread ends, and when the library is unloaded from a
// process that goes on.
void end_thread_of_holder_cache() noexcept;
void close_holder_cache() noexcept;

}  // namespace velt::detail
