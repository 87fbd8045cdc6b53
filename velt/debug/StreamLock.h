// The lock of a debug stream: a TMutex that its holder locks again without asking
// the kernel.
#pragma once

#include <atomic>
#include <cstdint>

#include "velt/base/Export.h"
#include "velt/locks/Mutex.h"

namespace velt::detail {

// The holder counts its further locks and unlocks, so only its first Lock() and its
// last Unlock() are calls of the platform. Otherwise as TMutex.
//
// A copy shares the kernel's mutex but has its own record of the holder, which
// starts empty. So a thread that holds one copy asks the kernel once more for the
// other, and the kernel counts too: the two records cannot contradict each other.
class VELT_API stream_lock : public TMutex {
public:
  stream_lock() = default;
  stream_lock(stream_lock const& other) : TMutex(other) {}

  // No thread may hold this lock.
  stream_lock& operator=(stream_lock const& other) {
    TMutex::operator=(other);
    return *this;
  }

  [[nodiscard]] bool Lock(unsigned int timeout) override;
  void Lock() override;
  void Unlock() override;

private:
  // Only the holder writes these two. A thread finds its own number in `holder`
  // only if it put it there itself, so a thread without the lock may read it.
  std::atomic<std::uintptr_t> holder = 0;  // number of the thread; 0 means none
  unsigned depth = 0;
};

}  // namespace velt::detail
