// The kernel objects that can have names: mutex, semaphore, event and timer.
#include <windows.h>

#include "velt/base/CheckInternal.h"
#include "velt/locks/Event.h"
#include "velt/locks/Mutex.h"
#include "velt/locks/NamedObjectInternal.h"
#include "velt/locks/Semaphore.h"
#include "velt/locks/WaitableTimer.h"

using velt::detail::access_list;
using velt::detail::check;
using velt::detail::make_named;
using velt::detail::store_or_throw;

TMutex::TMutex() { CreateMutexW(false); }
TMutex::TMutex(char const* name) { CreateMutexW(name, false); }
TMutex::TMutex(wchar_t const* name) { CreateMutexW(name, false); }

void TMutex::CreateMutexW(bool owner) {
  store_or_throw(handle, ::CreateMutexW(nullptr, owner, nullptr));
}
void TMutex::CreateMutexW(char const* name, bool owner) {
  store_or_throw(handle, make_named(::CreateMutexA, access_list::absent, name, owner));
}
void TMutex::CreateMutexW(wchar_t const* name, bool owner) {
  store_or_throw(handle, make_named(::CreateMutexW, access_list::absent, name, owner));
}
void TMutex::OpenMutexW(char const* name, unsigned long access) {
  store_or_throw(handle, ::OpenMutexA(access, FALSE, name));
}
void TMutex::OpenMutexW(wchar_t const* name, unsigned long access) {
  store_or_throw(handle, ::OpenMutexW(access, FALSE, name));
}

void TMutex::ReleaseMutex() { check(::ReleaseMutex(handle)); }

bool TMutex::Lock(unsigned int timeout) {
  DWORD const result = WaitForSingleObject(timeout, TRUE);
  return result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
}
void TMutex::Lock() {
  while (!TMutex::Lock(INFINITE)) {
  }
}
void TMutex::Unlock() { ReleaseMutex(); }

TSemaphore::TSemaphore(int count) { CreateSemaphoreW(count, count); }
TSemaphore::TSemaphore(int maximum, int initial) { CreateSemaphoreW(maximum, initial); }
TSemaphore::TSemaphore(char const* name, int maximum, int initial) {
  CreateSemaphoreW(maximum, initial, name);
}
TSemaphore::TSemaphore(wchar_t const* name, int maximum, int initial) {
  CreateSemaphoreW(maximum, initial, name);
}

void TSemaphore::CreateSemaphoreW(long maximum, long initial) {
  store_or_throw(handle, ::CreateSemaphoreW(nullptr, initial, maximum, nullptr));
}
void TSemaphore::CreateSemaphoreW(long maximum, long initial, char const* name) {
  store_or_throw(handle,
                 make_named(::CreateSemaphoreA, access_list::absent, name, initial, maximum));
}
void TSemaphore::CreateSemaphoreW(long maximum, long initial, wchar_t const* name) {
  store_or_throw(handle,
                 make_named(::CreateSemaphoreW, access_list::absent, name, initial, maximum));
}
void TSemaphore::OpenSemaphoreW(char const* name, unsigned long access) {
  store_or_throw(handle, ::OpenSemaphoreA(access, FALSE, name));
}
void TSemaphore::OpenSemaphoreW(wchar_t const* name, unsigned long access) {
  store_or_throw(handle, ::OpenSemaphoreW(access, FALSE, name));
}

long TSemaphore::ReleaseSemaphore(long count) {
  LONG previous;
  check(::ReleaseSemaphore(handle, count, &previous));
  return previous;
}

bool TSemaphore::Lock(unsigned int timeout) {
  return WaitForSingleObject(timeout, TRUE) == WAIT_OBJECT_0;
}
void TSemaphore::Lock() {
  while (!TSemaphore::Lock(INFINITE)) {
  }
}
void TSemaphore::Unlock() { ReleaseSemaphore(1); }

TEvent::TEvent(bool manual, bool initial) { CreateEventW(manual, initial); }
TEvent::TEvent(char const* name, bool manual, bool initial) { CreateEventW(manual, initial, name); }
TEvent::TEvent(wchar_t const* name, bool manual, bool initial) {
  CreateEventW(manual, initial, name);
}

void TEvent::CreateEventW(bool manual, bool initial) {
  store_or_throw(handle, ::CreateEventW(nullptr, manual, initial, nullptr));
}
void TEvent::CreateEventW(bool manual, bool initial, char const* name) {
  store_or_throw(handle, make_named(::CreateEventA, access_list::open, name, manual, initial));
}
void TEvent::CreateEventW(bool manual, bool initial, wchar_t const* name) {
  store_or_throw(handle, make_named(::CreateEventW, access_list::open, name, manual, initial));
}
void TEvent::OpenEventW(char const* name, unsigned long access) {
  store_or_throw(handle, ::OpenEventA(access, FALSE, name));
}
void TEvent::OpenEventW(wchar_t const* name, unsigned long access) {
  store_or_throw(handle, ::OpenEventW(access, FALSE, name));
}

void TEvent::SetEvent() { check(::SetEvent(handle)); }
void TEvent::ResetEvent() { check(::ResetEvent(handle)); }
void TEvent::PulseEvent() { check(::PulseEvent(handle)); }

bool TEvent::Signaled(int time) const {
  return WaitForSingleObject(static_cast<unsigned long>(time), TRUE) == WAIT_OBJECT_0;
}
void TEvent::WaitForSignal() const {
  while (!Signaled(-1)) {
  }
}

TWaitableTimer::TWaitableTimer(bool manual) { CreateTimer(manual); }
TWaitableTimer::TWaitableTimer(char const* name, bool manual) { CreateTimer(name, manual); }
TWaitableTimer::TWaitableTimer(wchar_t const* name, bool manual) { CreateTimer(name, manual); }

void TWaitableTimer::CreateTimer(bool manual) {
  store(::CreateWaitableTimerW(nullptr, manual, nullptr));
}
void TWaitableTimer::CreateTimer(char const* name, bool manual) {
  store(make_named(::CreateWaitableTimerA, access_list::absent, name, manual));
}
void TWaitableTimer::CreateTimer(wchar_t const* name, bool manual) {
  store(make_named(::CreateWaitableTimerW, access_list::absent, name, manual));
}
void TWaitableTimer::OpenTimer(char const* name, unsigned long access) {
  store(::OpenWaitableTimerA(access, FALSE, name));
}
void TWaitableTimer::OpenTimer(wchar_t const* name, unsigned long access) {
  store(::OpenWaitableTimerW(access, FALSE, name));
}

// The platform reports a failure by null, which passes, as the header says.
void TWaitableTimer::store(void* answer) {
  handle = answer;
  if (answer == INVALID_HANDLE_VALUE) ThrowSystemException();
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
void TWaitableTimer::CancelTimer() { check(CancelWaitableTimer(handle)); }

void velt::detail::throw_wait_timeout() { ThrowSystemException(WAIT_TIMEOUT); }
