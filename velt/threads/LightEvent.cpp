#include "velt/threads/LightEventInternal.h"

#include <windows.h>

#include "velt/threads/Thread.h"

namespace velt::detail {

int light_event::raise() noexcept {
  auto found = state.load();
  while (!state.compare_exchange_weak(found, (found & ~(one_set - 1)) + one_set + signalled)) {
  }
  return static_cast<int>((found & (one_set - 1)) / one_waiter);
}

void light_event::wake(int waiters) {
  if (waiters != 0) kernel.ReleaseSemaphore(waiters);
}

bool light_event::was_set_since(std::uint64_t found) const noexcept {
  return found / one_set != state.load() / one_set;
}

// A Set() has stopped the waiting already, and left a hint that nobody needs.
void light_event::stop_waiting(std::uint64_t found) noexcept {
  auto now = state.load();
  while (found / one_set == now / one_set &&
         !state.compare_exchange_weak(now, now - one_waiter)) {
  }
}

// Whoever takes a hint that was meant for another waits on: such a hint is what an
// earlier waiter left, who did not need it any more.
bool light_event::Wait(int timeoutMs) {
  auto found = state.load();
  do {
    if (found & signalled) return true;
    if (timeoutMs == 0) {
      TThread::Sleep(0, TRUE);
      return false;
    }
  } while (!state.compare_exchange_weak(found, found + one_waiter));

  DWORD result;
  do {
    try {
      result = kernel.WaitForSingleObject(static_cast<DWORD>(timeoutMs), TRUE);
    } catch (...) {
      stop_waiting(found);
      throw;
    }
    if (was_set_since(found)) return true;
  } while (result == WAIT_OBJECT_0);
  stop_waiting(found);
  return false;
}

}  // namespace velt::detail
