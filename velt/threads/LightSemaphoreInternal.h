// A semaphore that asks the kernel only where a thread has to wait or to be
// woken.
#pragma once

#include <atomic>

#include "velt/locks/Semaphore.h"

namespace velt::detail {

// As TSemaphore, and with its failures; made with a count of 0. Nothing checks
// the count against the maximum: who releases sees to that.
class light_semaphore {
public:
  explicit light_semaphore(int maximum);

  void Release() {
    if (raise()) wake();
  }

  // The two halves of Release(), for a thread that holds a lock which the woken
  // one will want: the second, if the first says so, can wait until that lock is
  // free.
  bool raise() noexcept { return count.fetch_add(1) < 0; }
  void wake();

  // Takes one from the count: false when the time ran out, and also when a queued
  // call ended the wait. With a timeout of 0 no queued calls run.
  bool Lock(unsigned int timeout);

private:
  bool take() noexcept;
  bool stop_waiting();

  // Counts to be taken; below 0, how many threads wait that nobody has woken.
  std::atomic<int> count = 0;
  // A count for each thread that was woken and has not noticed yet.
  TSemaphore kernel;
};

}  // namespace velt::detail
