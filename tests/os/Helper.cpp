// The other process: does what the command line says.
//
//   raise MAPPING           turns the text in the mapping into upper case
//   send MAILSLOT FROM N    sends the messages "FROM 1" to "FROM N"
//   end CODE                ends with the code
//   stay EVENT              sets the event and stays until killed
//
// Ends with 0 if nothing else is said. A failure ends it with the platform's code.
#include <windows.h>

#include <cstdlib>
#include <string>

#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/Event.h"
#include "velt/os/File.h"
#include "velt/os/FileMapping.h"

namespace {

constexpr int limit = 20'000;

int raise(char const* name) {
  TFileMapping mapping;
  mapping.OpenFileMappingW(name, FILE_MAP_WRITE);
  auto const text = static_cast<char*>(mapping.MapViewOfFile(FILE_MAP_WRITE, 0, 0));
  CharUpperA(text);
  UnmapViewOfFile(text);
  return 0;
}

int send(char const* name, std::string const& from, int count) {
  TFile slot(name, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
  for (int i = 1; i <= count; ++i) {
    auto const message = from + ' ' + std::to_string(i);
    slot.WriteFile(message.data(), static_cast<DWORD>(message.size()));
  }
  return 0;
}

int stay(char const* name) {
  TEvent started(DoNotInitialize);
  started.OpenEventW(name, EVENT_MODIFY_STATE);
  started.Set();
  Sleep(limit);
  return WAIT_TIMEOUT;
}

}  // namespace

int main(int count, char** arguments) {
  SaveMiniDumpOnCppException = false;
  std::string const command = count > 1 ? arguments[1] : "";
  try {
    if (command == "raise" && count == 3) return raise(arguments[2]);
    if (command == "send" && count == 5)
      return send(arguments[2], arguments[3], std::atoi(arguments[4]));
    if (command == "end" && count == 3) return std::atoi(arguments[2]);
    if (command == "stay" && count == 3) return stay(arguments[2]);
  } catch (ESystemException const& error) {
    return error["Code"].as_int();
  }
  return ERROR_BAD_COMMAND;
}
