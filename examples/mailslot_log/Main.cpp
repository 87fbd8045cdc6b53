// Collects the lines of several processes in one mailslot and prints them as they
// arrive. The processes run this program too.
//
// Status: 0, or 2 if the command was wrong or a line did not arrive in time.
#include <windows.h>

#include <string>

#include "examples/typed_values/Terminal.h"
#include "velt/diagnostics/Settings.h"
#include "velt/os/Mailslot.h"
#include "velt/os/Process.h"
#include "velt/text/Numbers.h"

namespace {

wchar_t const usage[] = L"usage: mailslot_log PROCESSES, a number from 1 to 9";

constexpr int lines = 3;                    // of each process
constexpr unsigned long longest = 200;      // bytes of a line
constexpr unsigned long patience = 20'000;  // milliseconds

int send(wchar_t const* name) {
  TFile log(name, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
  for (int i = 1; i <= lines; ++i) {
    auto const line = "process " + std::to_string(GetCurrentProcessId()) + " is at step " + itoa(i);
    log.WriteFile(line.data(), static_cast<unsigned long>(line.size()));
  }
  return 0;
}

std::wstring next_line(TMailslot& log) {
  char line[longest];
  unsigned long size = 0;
  log.ReadFile(line, longest, size);
  log.GetOverlappedResult(size, true);
  return std::wstring(line, line + size) + L'\n';
}

int collect(int processes) {
  auto const name = L"\\\\.\\mailslot\\log-" + std::to_wstring(GetCurrentProcessId());
  TMailslot log(name.c_str(), patience, longest);
  wchar_t program[MAX_PATH];
  GetModuleFileNameW(nullptr, program, MAX_PATH);
  for (int i = 0; i < processes; ++i) {
    TProcess sender;  // the process runs on without it
    sender.CreateProcessW((L'"' + std::wstring(program) + L"\" --send " + name).c_str(), 0);
  }
  for (int i = 0; i < processes * lines; ++i) write(stream::output, next_line(log));
  return 0;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  SaveMiniDumpOnCppException = false;  // one line of text is enough
  try {
    if (count == 3 && arguments[1] == std::wstring(L"--send")) return send(arguments[2]);
    int const processes = count == 2 ? wtoi(arguments[1]) : 0;
    if (processes >= 1 && processes <= 9 && arguments[1] == itow(processes))
      return collect(processes);
    complain(usage);
  } catch (EGeneric const& error) {
    complain(L"mailslot_log", error);
  }
  return 2;
}
