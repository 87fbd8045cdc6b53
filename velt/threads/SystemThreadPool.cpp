#include "velt/threads/SystemThreadPoolInternal.h"

#include "velt/base/HandleCopies.h"
#include "velt/base/LibraryReferenceInternal.h"
#include "velt/threads/ThreadPool.h"

namespace {

// Not destroyed with the library's other static objects: at the end of a process
// the platform has stopped the pool's threads at any instruction.
union system_pool {
  constexpr system_pool() noexcept : pool() {}
  ~system_pool() {}

  SmartPtr<IThreadPool> pool;
};
constinit system_pool shared;
constinit velt::detail::handle_copies copies;

}  // namespace

SmartPtr<IThreadPool> GetSystemThreadPool() {
  if (auto pool = copies.copy(shared.pool)) return pool;
  auto const made = CreateNewThreadPool();
  copies.replace(shared.pool, made);
  return made;
}

namespace velt::detail {

void end_system_thread_pool() noexcept {
  note_that_library_unloads();
  if (!shared.pool) return;
  shared.pool->Stop();
  shared.pool.reset();
}

}  // namespace velt::detail
