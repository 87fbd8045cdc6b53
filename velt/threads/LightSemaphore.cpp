#include "velt/threads/LightSemaphoreInternal.h"

#include <windows.h>

#include <limits>

namespace velt::detail {

// A maximum that the platform would refuse is left to it. Any other does not hold
// for the kernel's part, where counts of a queue that was cleared meanwhile may
// arrive late.
light_semaphore::light_semaphore(int maximum)
    : kernel(maximum < 1 ? maximum : std::numeric_limits<int>::max(), 0) {}

void light_semaphore::wake() {
  try {
    kernel.ReleaseSemaphore(1);
  } catch (...) {
    --count;
    throw;
  }
}

bool light_semaphore::take() noexcept {
  int found = count.load(std::memory_order_relaxed);
  while (found > 0)
    if (count.compare_exchange_weak(found, found - 1)) return true;
  return false;
}

// Even where the caller will not wait the kernel is asked: the counts of threads
// that were woken and have not noticed yet are there to be taken.
bool light_semaphore::Lock(unsigned int timeout) {
  if (take()) return true;
  if (count.fetch_sub(1) > 0) return true;
  try {
    if (kernel.WaitForSingleObject(timeout, timeout != 0) == WAIT_OBJECT_0) return true;
  } catch (...) {
    if (!stop_waiting()) Release();
    throw;
  }
  return !stop_waiting();
}

// False if somebody has woken this thread meanwhile: then it has taken the count.
bool light_semaphore::stop_waiting() {
  for (;;) {
    int found = count.load();
    if (found < 0) {
      if (count.compare_exchange_weak(found, found + 1)) return true;
    } else if (kernel.WaitForSingleObject(1, FALSE) == WAIT_OBJECT_0) {
      return false;
    }
  }
}

}  // namespace velt::detail
