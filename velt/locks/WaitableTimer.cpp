#include "velt/locks/WaitableTimer.h"

#include <windows.h>

#include "velt/base/CheckInternal.h"
#include "velt/locks/NamedObjectInternal.h"

using velt::detail::check;
using velt::detail::access_list;
using velt::detail::named_object_security;

TWaitableTimer::TWaitableTimer(bool manual) { CreateTimer(manual); }
TWaitableTimer::TWaitableTimer(char const* name, bool manual) { CreateTimer(name, manual); }
TWaitableTimer::TWaitableTimer(wchar_t const* name, bool manual) { CreateTimer(name, manual); }

void TWaitableTimer::CreateTimer(bool manual) {
  store(::CreateWaitableTimerW(nullptr, manual, nullptr));
}
void TWaitableTimer::CreateTimer(char const* name, bool manual) {
  named_object_security security(access_list::absent);
  store(::CreateWaitableTimerA(security, manual, name));
}
void TWaitableTimer::CreateTimer(wchar_t const* name, bool manual) {
  named_object_security security(access_list::absent);
  store(::CreateWaitableTimerW(security, manual, name));
}

void TWaitableTimer::OpenTimer(char const* name, unsigned long access) {
  store(::OpenWaitableTimerA(access, FALSE, name));
}
void TWaitableTimer::OpenTimer(wchar_t const* name, unsigned long access) {
  store(::OpenWaitableTimerW(access, FALSE, name));
}

// Compares with what the platform does not answer, see the header.
void TWaitableTimer::store(void* answer) {
  handle = answer;
  check(answer != INVALID_HANDLE_VALUE);
}

void TWaitableTimer::SetTimer(unsigned long milliseconds, long period) {
  constexpr __int64 relative_ticks = -10'000;  // of 100 ns, in a millisecond
  LARGE_INTEGER due;
  due.QuadPart = milliseconds * relative_ticks;
  check(SetWaitableTimer(handle, &due, period, nullptr, nullptr, FALSE));
}

void TWaitableTimer::SetTimer(_FILETIME const& moment) {
  LARGE_INTEGER due;
  due.LowPart = moment.dwLowDateTime;
  due.HighPart = static_cast<LONG>(moment.dwHighDateTime);
  check(SetWaitableTimer(handle, &due, 0, nullptr, nullptr, FALSE));
}

void TWaitableTimer::CancelTimer() {
  check(CancelWaitableTimer(handle));
}
