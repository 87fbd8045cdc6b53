// The lock of a debug stream: a TMutex whose owner need not ask the kernel
// again.
#pragma once

#include <atomic>
#include <cstdint>

#include "velt/base/Export.h"
#include "velt/locks/Mutex.h"

namespace velt::detail {

// A thread that holds the lock locks and unlocks it further by counting, so only
// its first Lock() and its last Unlock() are calls of the platform. Otherwise as
// TMutex.
//
// A copy shares the kernel's mutex but has a record of its own, which starts
// with no holder: whoever holds the one asks the kernel once more for the other,
// and the kernel counts too. So the records cannot contradict each other.
class VELT_API stream_lock : public TMutex {
public:
  stream_lock() = default;
  stream_lock(stream_lock const& other) : TMutex(other) {}

  // Nobody may hold the lock.
  stream_lock& operator=(stream_lock const& other) {
    TMutex::operator=(other);
    return *this;
  }

  [[nodiscard]] bool Lock(unsigned int timeout) override;
  void Lock() override;
  void Unlock() override;

private:
  // Both are written by the holder alone. A thread finds its own number in
  // `holder` only if it put it there, so other threads may read it meanwhile.
  std::atomic<std::uintptr_t> holder = 0;  // number of the thread; 0 is nobody
  unsigned depth = 0;
};

}  // namespace velt::detail
