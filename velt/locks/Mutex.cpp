#include "velt/locks/Mutex.h"

#include <windows.h>

#include "velt/base/CheckInternal.h"
#include "velt/locks/NamedObjectInternal.h"

using velt::detail::check;
using velt::detail::access_list;
using velt::detail::named_object_security;
using velt::detail::store_or_throw;

namespace {

bool acquired(DWORD result) { return result == WAIT_OBJECT_0 || result == WAIT_ABANDONED; }

}  // namespace

TMutex::TMutex() { CreateMutexW(false); }
TMutex::TMutex(char const* name) { CreateMutexW(name, false); }
TMutex::TMutex(wchar_t const* name) { CreateMutexW(name, false); }

void TMutex::CreateMutexW(bool owner) {
  store_or_throw(handle, ::CreateMutexW(nullptr, owner, nullptr));
}
void TMutex::CreateMutexW(char const* name, bool owner) {
  named_object_security security(access_list::absent);
  store_or_throw(handle, ::CreateMutexA(security, owner, name));
}
void TMutex::CreateMutexW(wchar_t const* name, bool owner) {
  named_object_security security(access_list::absent);
  store_or_throw(handle, ::CreateMutexW(security, owner, name));
}

void TMutex::OpenMutexW(char const* name, unsigned long access) {
  store_or_throw(handle, ::OpenMutexA(access, FALSE, name));
}
void TMutex::OpenMutexW(wchar_t const* name, unsigned long access) {
  store_or_throw(handle, ::OpenMutexW(access, FALSE, name));
}

void TMutex::ReleaseMutex() {
  check(::ReleaseMutex(handle));
}

bool TMutex::Lock(unsigned int timeout) { return acquired(WaitForSingleObject(timeout, TRUE)); }

void TMutex::Lock() {
  while (!TMutex::Lock(INFINITE)) {
  }
}

void TMutex::Unlock() { ReleaseMutex(); }
