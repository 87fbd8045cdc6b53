// Runs a program, and ends it if it takes too long.
//
// Status: 0 if the program ended with 0, 1 if it ended with another code or took too
// long, 2 if it could not be started or the command was wrong.
#include <windows.h>

#include <string>

#include "examples/typed_values/Terminal.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/os/Process.h"
#include "velt/text/Numbers.h"

namespace {

wchar_t const usage[] = L"usage: child_process MILLISECONDS PROGRAM [ARGUMENT]...";

constexpr int killed = 1;

std::wstring command_of(int count, wchar_t** words) {
  std::wstring command;
  for (int i = 0; i < count; ++i) command += (i ? L" \"" : L"\"") + std::wstring(words[i]) + L'"';
  return command;
}

unsigned long status_of(TProcess const& process) {
  unsigned long status = 0;
  if (!GetExitCodeProcess(process, &status)) ThrowSystemException();
  return status;
}

int run(int milliseconds, std::wstring const& command) {
  TProcess process;
  process.CreateProcessW(command.c_str(), 0);
  if (process.WaitForSingleObject(static_cast<unsigned long>(milliseconds), FALSE) ==
      WAIT_TIMEOUT) {
    process.TerminateProcess(killed);
    process.WaitForSingleObject(INFINITE, FALSE);
    write(stream::output, L"killed after " + itow(milliseconds) + L" ms\n");
    return 1;
  }
  auto const status = status_of(process);
  write(stream::output, L"ended with " + std::to_wstring(status) + L'\n');
  return status == 0 ? 0 : 1;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  SaveMiniDumpOnCppException = false;  // one line of text is enough
  try {
    int const milliseconds = count > 2 ? wtoi(arguments[1]) : 0;
    if (milliseconds > 0 && arguments[1] == itow(milliseconds))
      return run(milliseconds, command_of(count - 2, arguments + 2));
    complain(usage);
  } catch (EGeneric const& error) {
    complain(L"child_process", error);
  }
  return 2;
}
