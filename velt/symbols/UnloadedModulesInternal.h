// Which modules the platform has unloaded: another module may be loaded at the address of
// one that is gone.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace velt::detail {

// Collects the bases of unloaded modules while it lives. Without a platform that reports
// them it stays empty. Constructor and destructor wait for the loader lock.
class unloaded_modules {
public:
  unloaded_modules() noexcept;
  unloaded_modules(unloaded_modules const&) = delete;
  unloaded_modules& operator=(unloaded_modules const&) = delete;
  ~unloaded_modules() { stop(); }

  // Collects no more. For the unloading of the library, whose code the platform calls.
  void stop() noexcept;

  // Calls forget(base) once for each module. One thread at a time.
  template <class Forget>
  void take(Forget forget) {
    if (!any.exchange(false)) return;
    for (auto& base : bases)
      if (auto const gone = base.exchange(0)) forget(gone);
  }

private:
  struct notice;
  static void __stdcall note(unsigned long reason, notice const* module, void* self) noexcept;
  void add(std::uint64_t base) noexcept;

  // A module without a place is not collected.
  std::array<std::atomic<std::uint64_t>, 256> bases{};
  std::atomic<bool> any = false;
  void* registration = nullptr;
};

}  // namespace velt::detail
