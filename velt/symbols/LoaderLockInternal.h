// The lock of the platform's loader, which threads also take when they begin and
// end, and which a DllMain owns. Nobody waits for it with symbol_lock() held: its
// owner may be waiting for symbol_lock(), to report an exception out of a DllMain.
#pragma once

#include <cstdint>

namespace velt::detail {

// Tries once, and holds the lock for a scope if it was free or the caller's own.
class [[nodiscard]] loader_lock {
public:
  loader_lock() noexcept;
  loader_lock(loader_lock const&) = delete;
  loader_lock& operator=(loader_lock const&) = delete;
  ~loader_lock();

  bool held() const noexcept { return holds; }

private:
  bool holds = false;
  std::uintptr_t cookie = 0;
};

// How long to go on trying: for a second. Not at all after a second in vain, until
// the lock has been free again; so a loader that hangs costs the process one second.
class loader_patience {
public:
  loader_patience() noexcept;
  bool is_over() noexcept;
  void pause() const noexcept;

private:
  std::uint64_t const end;
};

// False also where the platform does not show who owns the lock.
bool owns_loader_lock() noexcept;

}  // namespace velt::detail
