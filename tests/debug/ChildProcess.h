// Starts the child program of these tests.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

// Runs it to its end and returns its exit code; 0xFFFFFFFF if it cannot be
// started or does not end within a minute.
inline DWORD run_child(std::vector<std::string> const& arguments, DWORD flags = 0) {
  char program[MAX_PATH];
  GetModuleFileNameA(nullptr, program, MAX_PATH);
  std::string path = program;
  path.replace(path.find_last_of('\\') + 1, path.npos, VELT_DEBUG_CHILD);
  std::string command = '"' + path + '"';
  for (auto const& argument : arguments) command += " \"" + argument + '"';

  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process;
  if (!CreateProcessA(path.c_str(), command.data(), nullptr, nullptr, FALSE, flags, nullptr,
                      nullptr, &startup, &process))
    return MAXDWORD;
  DWORD code = MAXDWORD;
  if (WaitForSingleObject(process.hProcess, 60'000) == WAIT_OBJECT_0)
    GetExitCodeProcess(process.hProcess, &code);
  else
    TerminateProcess(process.hProcess, MAXDWORD);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return code;
}
