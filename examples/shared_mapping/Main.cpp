// Puts a text into memory that it shares with a second process, which converts it to
// upper case. Then prints the text from that memory. The second process runs this
// program too.
//
// Status: 0, or 1 if the second process failed, or 2 if the command was wrong or
// the memory could not be shared.
#include <windows.h>

#include <cwchar>
#include <string>

#include "examples/typed_values/Terminal.h"
#include "velt/diagnostics/Settings.h"
#include "velt/os/FileMapping.h"
#include "velt/os/Process.h"

namespace {

wchar_t const usage[] = L"usage: shared_mapping TEXT";

wchar_t* text_in(TFileMapping& mapping) {
  return static_cast<wchar_t*>(mapping.MapViewOfFile(FILE_MAP_WRITE, 0, 0));
}

unsigned long status_of(std::wstring const& command) {
  TProcess process;
  process.CreateProcessW(command.c_str(), 0);
  process.WaitForSingleObject(INFINITE, FALSE);
  unsigned long status = 1;
  GetExitCodeProcess(process, &status);
  return status;
}

int raise(std::wstring const& name) {
  TFileMapping mapping;
  mapping.OpenFileMappingW(name.c_str(), FILE_MAP_WRITE);
  CharUpperW(text_in(mapping));
  return 0;
}

int share(std::wstring const& text, std::wstring const& program) {
  auto const name = L"shared_mapping-" + std::to_wstring(GetCurrentProcessId());
  TFileMapping mapping;
  mapping.CreateFileMappingW(PAGE_READWRITE, (text.size() + 1) * sizeof(wchar_t), name.c_str());
  auto const shared = text_in(mapping);
  std::wcscpy(shared, text.c_str());
  if (status_of(L'"' + program + L"\" --raise " + name) != 0) return 1;
  write(stream::output, shared + std::wstring(L"\n"));
  return 0;
}

std::wstring own_path() {
  wchar_t path[MAX_PATH];
  return std::wstring(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  SaveMiniDumpOnCppException = false;  // one line of text is enough
  try {
    if (count == 3 && arguments[1] == std::wstring(L"--raise")) return raise(arguments[2]);
    if (count == 2) return share(arguments[1], own_path());
    complain(usage);
  } catch (EGeneric const& error) {
    complain(L"shared_mapping", error);
  }
  return 2;
}
