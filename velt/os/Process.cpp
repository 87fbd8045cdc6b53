#include "velt/os/Process.h"

#include <windows.h>

#include <string>

#include "velt/base/CheckInternal.h"

using velt::detail::check;

namespace {

// The forms with narrow and with wide text differ in these types and the call alone.
template <class Startup, class Call, class Char>
void create(void*& handle, Call call, Char* command_line, DWORD flags) {
  Startup startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION made;
  check(call(nullptr, command_line, nullptr, nullptr, FALSE, flags, nullptr, nullptr, &startup,
            &made));
  handle = made.hProcess;
  ::CloseHandle(made.hThread);
}

}  // namespace

void TProcess::CreateProcessW(char const* commandLine, unsigned long flags) {
  // The platform makes a wide copy of narrow text and does not write to the original.
  create<STARTUPINFOA>(handle, &::CreateProcessA, const_cast<char*>(commandLine), flags);
}
void TProcess::CreateProcessW(wchar_t const* commandLine, unsigned long flags) {
  std::wstring writable = commandLine;
  create<STARTUPINFOW>(handle, &::CreateProcessW, writable.data(), flags);
}

void TProcess::TerminateProcess(int exitCode) {
  check(::TerminateProcess(handle, static_cast<UINT>(exitCode)));
}
