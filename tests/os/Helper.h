// The helper program, started as a TProcess.
#pragma once

#include <windows.h>

#include <string>

#include "velt/os/Process.h"

namespace velt_test {

constexpr unsigned long limit = 20'000;  // milliseconds

inline std::string helper_command(std::string const& arguments) {
  char path[MAX_PATH];
  GetModuleFileNameA(nullptr, path, MAX_PATH);
  std::string const program = path;
  return '"' + program.substr(0, program.rfind('\\')) + "\\os_helper.exe\" " + arguments;
}

inline TProcess helper(std::string const& arguments) {
  TProcess process;
  process.CreateProcessW(helper_command(arguments).c_str(), 0);
  return process;
}

// 259, as of a process that runs, if it does not end in time.
inline DWORD exit_code(TProcess const& process) {
  DWORD code = STILL_ACTIVE;
  process.WaitForSingleObject(limit, FALSE);
  GetExitCodeProcess(process, &code);
  return code;
}

// A name that no other process uses.
inline std::string unique(std::string const& what) {
  return "velt-os-" + what + "-" + std::to_string(GetCurrentProcessId());
}

}  // namespace velt_test
