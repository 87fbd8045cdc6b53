// Stopwatches: small values that store a reading of a clock and tell how much time has
// passed since.
//
//   Class                   Clock            Unit       Use
//   _ticks_t                tick count       1 ms       cheapest; wraps after 49.7 days
//   _pcounter_t             performance      under 1 us for measuring
//   _thread_user_times_t    CPU time of the  100 ns     work in the program's own code
//   _thread_kernel_times_t  calling thread   100 ns     work of the system for it
//   _thread_times_t                          100 ns     both
//
// All classes have the same operations. The default constructor and restart() start the
// watch. get_elapsed_ticks() returns the time in units of the clock, get_elapsed() in
// seconds. A watch made with DoNotInitialize reads no clock and holds an indeterminate
// value: call restart() first. Nothing fails, throws or allocates. Only one thread at a
// time may use a watch.
#pragma once

#include <cstdint>  // __int64

#include "velt/base/DoNotInitialize.h"
#include "velt/base/Export.h"

union _LARGE_INTEGER;
struct _FILETIME;

// Counts of the performance counter per second; read once, at load.
extern VELT_API _LARGE_INTEGER _PerformanceCounterFrequency;

namespace velt::detail {

VELT_API unsigned long tick_count() noexcept;
VELT_API __int64 performance_count() noexcept;

}  // namespace velt::detail

// The tick count of the system, in milliseconds.
class _ticks_t {
public:
  _ticks_t() noexcept { restart(); }
  // Reads no clock.
  _ticks_t(_DoNotInitialize const&) noexcept {}

  // Starts anew.
  void restart() noexcept { start = velt::detail::tick_count(); }

  // Correct across a wrap of the tick count, if less than 2^32 ms have passed.
  unsigned long get_elapsed_ticks() const noexcept { return velt::detail::tick_count() - start; }
  double get_elapsed() const noexcept { return get_elapsed_ticks() / 1000.0; }

  // Were both started at the same count?
  bool operator==(_ticks_t const& other) const noexcept { return start == other.start; }
  // Compares the stored counts only: if the tick count wraps between two starts, the
  // later one is the smaller.
  bool operator<(_ticks_t const& other) const noexcept { return start < other.start; }
  // Milliseconds from the other start to this one. Correct across a wrap, for up to
  // 2^31 ms in either direction.
  int operator-(_ticks_t const& other) const noexcept {
    return static_cast<int>(start - other.start);
  }

private:
  unsigned long start;
};

// The performance counter.
class _pcounter_t {
public:
  // Counts per second.
  VELT_API static const double frequency;

  _pcounter_t() noexcept { restart(); }
  // Reads no clock.
  _pcounter_t(_DoNotInitialize const&) noexcept {}

  // Starts anew.
  void restart() noexcept { start = velt::detail::performance_count(); }

  // Counts, and seconds, since the start.
  __int64 get_elapsed_ticks() const noexcept { return velt::detail::performance_count() - start; }
  double get_elapsed() const noexcept { return to_seconds(get_elapsed_ticks()); }

  // One reading of the clock ends a lap and starts the next, so the laps add up to the
  // whole time.
  __int64 get_elapsed_ticks_and_restart() noexcept {
    __int64 const previous = start;
    restart();
    return start - previous;
  }
  double get_elapsed_restart() noexcept { return to_seconds(get_elapsed_ticks_and_restart()); }

  // The stored start, not the time that has passed.
  operator __int64() const noexcept { return start; }

private:
  static double to_seconds(__int64 ticks) noexcept {
    return static_cast<double>(ticks) / frequency;
  }

  __int64 start;
};

// Shared by the thread stopwatches.
struct VELT_API _thread_common_times_t {
  // Ticks of 100 ns per second.
  static const double frequency;
  // The pseudo-handle of the calling thread.
  static void* const current_thread;
  // Takes results of GetThreadTimes that nobody needs. All threads may write here at the
  // same time; no thread reads it.
  static _FILETIME dummy_time;
};

namespace velt::detail {

// Readings of the CPU time of the calling thread, in ticks of 100 ns.
struct user_time {
  __int64 user;
  VELT_API void read() noexcept;
  __int64 total() const noexcept { return user; }
};

struct kernel_time {
  __int64 kernel;
  VELT_API void read() noexcept;
  __int64 total() const noexcept { return kernel; }
};

struct both_times {
  __int64 kernel, user;
  VELT_API void read() noexcept;
  __int64 total() const noexcept { return kernel + user; }
};

// CPU time of the calling thread since the start. A watch that was started on another
// thread gives the difference of two unrelated clocks.
template <class Reading>
class thread_stopwatch {
public:
  thread_stopwatch() noexcept { restart(); }
  thread_stopwatch(_DoNotInitialize const&) noexcept {}

  void restart() noexcept { start.read(); }

  __int64 get_elapsed_ticks() const noexcept {
    Reading now{};
    now.read();
    return now.total() - start.total();
  }
  double get_elapsed() const noexcept {
    return static_cast<double>(get_elapsed_ticks()) / _thread_common_times_t::frequency;
  }

  // The stored start, not the time that has passed.
  operator __int64() const noexcept { return start.total(); }

private:
  Reading start;
};

}  // namespace velt::detail

// CPU time of the calling thread: of its own code, of the system for it, and of both.
using _thread_user_times_t = velt::detail::thread_stopwatch<velt::detail::user_time>;
using _thread_kernel_times_t = velt::detail::thread_stopwatch<velt::detail::kernel_time>;
using _thread_times_t = velt::detail::thread_stopwatch<velt::detail::both_times>;
