#include "velt/debug/StreamLock.h"

#include "velt/base/ThreadSlotInternal.h"

namespace velt::detail {
namespace {

// Numbers the threads. The platform's thread identifiers will not do, since it gives
// them out again: a new thread could take itself for the holder of a lock that a
// killed thread left behind.
class thread_numbers {
public:
  // 0 if there is no slot. Does not change the thread's last error, which the
  // statement may be about to write.
  std::uintptr_t of_this_thread() noexcept {
    auto const number = reinterpret_cast<std::uintptr_t>(slot.read());
    return number != 0 ? number : give_number();
  }

private:
  std::uintptr_t give_number() noexcept {
    auto const number = ++last;
    return slot.write(reinterpret_cast<void*>(number)) ? number : 0;
  }

  owned_slot slot;
  std::atomic<std::uintptr_t> last = 0;
};

std::uintptr_t this_thread() noexcept {
  static thread_numbers numbers;
  return numbers.of_this_thread();
}

}  // namespace

bool stream_lock::Lock(unsigned int timeout) {
  auto const thread = this_thread();
  if (thread != 0 && holder.load(std::memory_order_relaxed) == thread) {
    ++depth;
    return true;
  }
  if (!TMutex::Lock(timeout)) return false;
  holder.store(thread, std::memory_order_relaxed);
  depth = 1;
  return true;
}

void stream_lock::Lock() {
  while (!stream_lock::Lock(INFINITE)) {
  }
}

void stream_lock::Unlock() {
  auto const thread = this_thread();
  if (thread != 0 && holder.load(std::memory_order_relaxed) == thread) {
    if (--depth != 0) return;
    holder.store(0, std::memory_order_relaxed);
  }
  // Throws if this thread does not hold the mutex.
  TMutex::Unlock();
}

}  // namespace velt::detail
