// The other threads of the process, stopped.
#pragma once

#include <windows.h>

#include <array>
#include <atomic>
#include <cstddef>

namespace velt::detail {

struct handle_owner {
  explicit handle_owner(HANDLE its_handle) noexcept : handle(its_handle) {}
  ~handle_owner() {
    if (handle) CloseHandle(handle);
  }
  handle_owner(handle_owner const&) = delete;
  handle_owner& operator=(handle_owner const&) = delete;

  HANDLE const handle;
};

// Threads that were stopped, or have ended. Its memory does not come from a heap: while it
// grows, another thread owns the locks of the heaps. No wait here is alertable.
class stopped_threads {
public:
  stopped_threads() noexcept;
  stopped_threads(stopped_threads const&) = delete;
  stopped_threads& operator=(stopped_threads const&) = delete;
  // Resumes them.
  ~stopped_threads();

  // Stops all but two. False if a thread cannot be stopped.
  bool stop_all_but(DWORD one, DWORD other) noexcept;

  // Returns when the others own none of the locks that a writer may need. False if that
  // takes too long; all run again then. `heaps` are those of the run times.
  bool release_locks(DWORD one, DWORD other, std::array<void*, 2> const& heaps) noexcept;

  // Only the first call has an effect.
  void resume() noexcept;

private:
  struct record {
    HANDLE thread;
    DWORD id;
    bool is_stopped;
    bool is_held_by_others;
  };
  class probe;
  enum class outcome { nobody_new, is_new, runs_on };

  bool knows(DWORD id) const noexcept;
  outcome suspend_new_ones(DWORD one, DWORD other) noexcept;
  bool suspend(HANDLE thread, DWORD id) noexcept;
  static bool stands(record& each) noexcept;
  void move_on(probe const& attempt) noexcept;

  record* const records;
  std::atomic<std::size_t> count = 0;
};

}  // namespace velt::detail
