// A manual event that asks the kernel only where a thread has to wait or to be
// woken.
#pragma once

#include <atomic>
#include <cstdint>

#include "velt/locks/Semaphore.h"

namespace velt::detail {

// As TEvent, and with its failures; made signalled.
class light_event {
public:
  light_event() : kernel(most_waiters, 0) {}

  void Set() { wake(raise()); }
  void Reset() noexcept { state.fetch_and(~signalled); }

  // The two halves of Set(), for a thread that holds a lock which the woken ones
  // will want: the first tells how many the second has to wake.
  int raise() noexcept;
  void wake(int waiters);

  // An alertable wait of so many milliseconds, -1 meaning no limit: false when the
  // time ran out, and also when a queued call ended the wait. In rare cases the
  // time begins anew.
  bool Wait(int timeoutMs);

private:
  static constexpr int most_waiters = 0x7FFFFFFF;

  bool was_set_since(std::uint64_t found) const noexcept;
  void stop_waiting(std::uint64_t found) noexcept;

  // From the lowest bit: is it signalled, how many threads wait for the next
  // Set(), and in the upper half how often it was set. That is what a waiter goes
  // by; to be woken is but a hint to look.
  static constexpr std::uint64_t signalled = 1, one_waiter = 2, one_set = 1ull << 32;
  std::atomic<std::uint64_t> state = signalled;

  TSemaphore kernel;
};

}  // namespace velt::detail
