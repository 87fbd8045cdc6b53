// The locks of the process that a walk or a dump needs while other threads are
// stopped. A stopped thread may own any of them, and the walk would wait for it for
// ever. So all of them are taken beforehand, always in this order:
//
//   symbol_lock(), the loader lock, the lock of the process environment, the heap
//   of the process, the heaps of the run times
#pragma once

#include <array>
#include <optional>

#include "velt/symbols/LoaderLockInternal.h"

namespace velt::detail {

// What to do if a lock cannot be taken. The loader lock is only tried, and so is the
// environment's where the platform can; the others are waited for.
enum class when_taken {
  give_up,    // hold none
  go_on,      // do without it
  try_again,  // the loader lock, for a second, releasing symbol_lock() in between; then go on
};

class [[nodiscard]] process_locks {
public:
  // Throws what the wait for symbol_lock() throws.
  explicit process_locks(when_taken policy);
  process_locks(process_locks const&) = delete;
  process_locks& operator=(process_locks const&) = delete;
  ~process_locks();

  // False after giving up, and without symbol_lock().
  bool held() const noexcept { return symbols; }

  // Releases the others, newest first.
  void keep_only_symbol_lock() noexcept;

private:
  void take_symbols_and_loader(bool with_patience);
  bool take_rest(bool all);
  void release_symbols() noexcept;

  bool symbols = false;
  std::optional<loader_lock> loader;
  bool environment = false;
  bool process_heap = false;
  std::array<void*, 2> run_time_heaps{};
};

}  // namespace velt::detail
