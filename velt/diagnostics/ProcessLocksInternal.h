// The locks of the process that a walk or a dump needs while other threads are
// stopped. A stopped thread may own any of them, and the walk would wait for it for
// ever. So all of them are taken beforehand, always in this order:
//
//   symbol_lock(), the loader lock, for dumps the lock of the loader's search path where
//   the platform shows it, the lock of the process environment, the heap of the process,
//   the heaps of the run times
#pragma once

#include <array>
#include <optional>

#include "velt/symbols/LoaderLockInternal.h"

namespace velt::detail {

// Those behind the loader lock. A caller that does not wait leaves the search path alone,
// and only tries the environment, where the platform can. The heaps are waited for.
class [[nodiscard]] data_locks {
public:
  data_locks(when_busy policy, std::array<void*, 2> const& run_times) noexcept;
  data_locks(data_locks const&) = delete;
  data_locks& operator=(data_locks const&) = delete;
  ~data_locks();

  // False if the platform lacks one.
  bool all_held() const noexcept { return environment && process_heap; }

private:
  bool search_path;
  bool environment;
  bool process_heap;
  std::array<void*, 2> run_time_heaps{};
};

// If the loader lock is taken: do without it, or first try again for a second, releasing
// symbol_lock() in between.
enum class when_taken { go_on, try_again };

// All of them. The loader lock and that of the environment are only tried; the others
// are waited for.
class [[nodiscard]] process_locks {
public:
  // Throws what the wait for symbol_lock() throws.
  explicit process_locks(when_taken policy);
  process_locks(process_locks const&) = delete;
  process_locks& operator=(process_locks const&) = delete;
  ~process_locks();

  // False without symbol_lock().
  bool held() const noexcept { return symbols; }

private:
  void take_symbols_and_loader(bool with_patience);
  void release_symbols() noexcept;

  bool symbols = false;
  std::optional<loader_lock> loader;
  std::optional<data_locks> rest;
};

}  // namespace velt::detail
