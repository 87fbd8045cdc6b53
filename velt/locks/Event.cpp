#include "velt/locks/Event.h"

#include <windows.h>

#include "velt/base/CheckInternal.h"
#include "velt/locks/NamedObjectInternal.h"

using velt::detail::check;
using velt::detail::access_list;
using velt::detail::named_object_security;
using velt::detail::store_or_throw;

TEvent::TEvent(bool manual, bool initial) { CreateEventW(manual, initial); }
TEvent::TEvent(char const* name, bool manual, bool initial) {
  CreateEventW(manual, initial, name);
}
TEvent::TEvent(wchar_t const* name, bool manual, bool initial) {
  CreateEventW(manual, initial, name);
}

void TEvent::CreateEventW(bool manual, bool initial) {
  store_or_throw(handle, ::CreateEventW(nullptr, manual, initial, nullptr));
}
void TEvent::CreateEventW(bool manual, bool initial, char const* name) {
  named_object_security security(access_list::open);
  store_or_throw(handle, ::CreateEventA(security, manual, initial, name));
}
void TEvent::CreateEventW(bool manual, bool initial, wchar_t const* name) {
  named_object_security security(access_list::open);
  store_or_throw(handle, ::CreateEventW(security, manual, initial, name));
}

void TEvent::OpenEventW(char const* name, unsigned long access) {
  store_or_throw(handle, ::OpenEventA(access, FALSE, name));
}
void TEvent::OpenEventW(wchar_t const* name, unsigned long access) {
  store_or_throw(handle, ::OpenEventW(access, FALSE, name));
}

void TEvent::SetEvent() {
  check(::SetEvent(handle));
}
void TEvent::ResetEvent() {
  check(::ResetEvent(handle));
}
void TEvent::PulseEvent() {
  check(::PulseEvent(handle));
}

bool TEvent::Signaled(int time) const {
  return WaitForSingleObject(static_cast<unsigned long>(time), TRUE) == WAIT_OBJECT_0;
}

void TEvent::WaitForSignal() const {
  while (!Signaled(-1)) {
  }
}
