// The lock of the platform's loader. A DllMain runs with it, and threads take it when they
// begin and end. No holder of symbol_lock() waits for it without a limit: its owner may
// wait for symbol_lock(), to report an exception out of a DllMain.
#pragma once

#include <cstdint>

namespace velt::detail {

enum class when_busy { give_up, wait };

// Takes the lock for a scope. An attempt that does not wait succeeds if the lock is free
// or the caller's.
class [[nodiscard]] loader_lock {
public:
  explicit loader_lock(when_busy policy = when_busy::give_up) noexcept;
  loader_lock(loader_lock const&) = delete;
  loader_lock& operator=(loader_lock const&) = delete;
  ~loader_lock();

  bool held() const noexcept { return holds; }

private:
  bool holds = false;
  std::uintptr_t cookie = 0;
};

// Limits repeated attempts to one second. After a second in vain the limit is zero until
// an attempt succeeds, so that a loader that hangs costs the process one second.
class loader_patience {
public:
  loader_patience() noexcept;
  bool is_over() noexcept;
  void pause() const noexcept;

private:
  std::uint64_t const end;
};

// False also if the platform does not show the owner.
bool owns_loader_lock() noexcept;

}  // namespace velt::detail
