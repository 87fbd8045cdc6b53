#include "velt/os/Mailslot.h"

#include <windows.h>

#include "velt/base/CheckInternal.h"

using velt::detail::check;

TMailslot::TMailslot(char const* name, unsigned long readTimeout, unsigned long maximumSize) {
  CreateMailslotW(name, maximumSize, readTimeout);
}
TMailslot::TMailslot(wchar_t const* name, unsigned long readTimeout, unsigned long maximumSize) {
  CreateMailslotW(name, maximumSize, readTimeout);
}

void TMailslot::CreateMailslotW(char const* name, unsigned long maximumSize,
                                unsigned long readTimeout) {
  handle = ::CreateMailslotA(name, maximumSize, readTimeout, nullptr);
  check(handle != INVALID_HANDLE_VALUE);
}
void TMailslot::CreateMailslotW(wchar_t const* name, unsigned long maximumSize,
                                unsigned long readTimeout) {
  handle = ::CreateMailslotW(name, maximumSize, readTimeout, nullptr);
  check(handle != INVALID_HANDLE_VALUE);
}
