// Guards of the locks of the process that the platform itself uses: whoever
// stops other threads and then walks modules, environment or heap owns them
// first, or would wait for ever for a stopped thread. In this order, after
// symbol_lock(): loader, PEB, heap.
#pragma once

#include <cstdint>

struct _RTL_CRITICAL_SECTION;

namespace velt::detail {

// A guard may come out without its lock, and does not throw.
class ProcessLockGuard {
public:
  ProcessLockGuard(ProcessLockGuard const&) = delete;
  ProcessLockGuard& operator=(ProcessLockGuard const&) = delete;

  bool held() const noexcept { return holds; }

protected:
  ProcessLockGuard() noexcept = default;
  ~ProcessLockGuard() = default;

  bool holds = false;
};

// Only tries.
class [[nodiscard]] LoaderLockGuard : public ProcessLockGuard {
public:
  LoaderLockGuard() noexcept;
  ~LoaderLockGuard();

private:
  std::uintptr_t cookie = 0;
};

// Only tries where the platform can; waits otherwise.
class [[nodiscard]] PebLockGuard : public ProcessLockGuard {
public:
  PebLockGuard() noexcept;
  ~PebLockGuard();
};

// Asks the section that guards the process heap first, where that is known, and
// waits for the heap all the same if it is taken.
class [[nodiscard]] HeapLockGuard : public ProcessLockGuard {
public:
  HeapLockGuard() noexcept;
  ~HeapLockGuard();
};

// The critical section that guards the process heap, which the platform does not
// publish; null if it is not found. Takes the heap's lock meanwhile.
_RTL_CRITICAL_SECTION* FindHeapLockSection() noexcept;

}  // namespace velt::detail
