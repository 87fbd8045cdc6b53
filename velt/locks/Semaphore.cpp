#include "velt/locks/Semaphore.h"

#include <windows.h>

#include "velt/base/CheckInternal.h"
#include "velt/locks/NamedObjectInternal.h"

using velt::detail::check;
using velt::detail::access_list;
using velt::detail::named_object_security;
using velt::detail::store_or_throw;

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
  named_object_security security(access_list::absent);
  store_or_throw(handle, ::CreateSemaphoreA(security, initial, maximum, name));
}
void TSemaphore::CreateSemaphoreW(long maximum, long initial, wchar_t const* name) {
  named_object_security security(access_list::absent);
  store_or_throw(handle, ::CreateSemaphoreW(security, initial, maximum, name));
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
