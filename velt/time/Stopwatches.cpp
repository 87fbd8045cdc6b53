#include "velt/time/Stopwatches.h"

#include <windows.h>

#include "velt/base/LoadOrderInternal.h"

namespace {

_LARGE_INTEGER performance_frequency() {
  _LARGE_INTEGER result;
  QueryPerformanceFrequency(&result);
  return result;
}

// GetThreadTimes writes a record whose two halves lie as those of a 64-bit number do.
_FILETIME* as_filetime(__int64& ticks) { return reinterpret_cast<_FILETIME*>(&ticks); }

void read_thread_times(_FILETIME* kernel, _FILETIME* user) {
  _FILETIME* const unwanted = &_thread_common_times_t::dummy_time;
  GetThreadTimes(_thread_common_times_t::current_thread, unwanted, unwanted, kernel, user);
}

}  // namespace

VELT_LOAD_STEP(performance_frequency)
_LARGE_INTEGER _PerformanceCounterFrequency = performance_frequency();
// Numbers and pointers cannot name a step: they are built after all steps.
const double _pcounter_t::frequency = static_cast<double>(_PerformanceCounterFrequency.QuadPart);
const double _thread_common_times_t::frequency = 1e7;
void* const _thread_common_times_t::current_thread = GetCurrentThread();
_FILETIME _thread_common_times_t::dummy_time;

namespace velt::detail {

unsigned long tick_count() noexcept { return GetTickCount(); }

__int64 performance_count() noexcept {
  LARGE_INTEGER count;
  QueryPerformanceCounter(&count);
  return count.QuadPart;
}

void user_time::read() noexcept {
  read_thread_times(&_thread_common_times_t::dummy_time, as_filetime(user));
}

void kernel_time::read() noexcept {
  read_thread_times(as_filetime(kernel), &_thread_common_times_t::dummy_time);
}

void both_times::read() noexcept { read_thread_times(as_filetime(kernel), as_filetime(user)); }

}  // namespace velt::detail
