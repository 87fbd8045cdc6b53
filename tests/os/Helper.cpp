// The other process of the examples: ends with a code, or sets an event and stays
// until killed.
//
//   os_helper end CODE
//   os_helper stay EVENT
#include <windows.h>

#include <cstdlib>
#include <string_view>

int main(int count, char** arguments) {
  if (count != 3) return ERROR_BAD_COMMAND;
  if (std::string_view(arguments[1]) == "end") return std::atoi(arguments[2]);
  HANDLE const started = OpenEventA(EVENT_MODIFY_STATE, FALSE, arguments[2]);
  if (!started || !SetEvent(started)) return static_cast<int>(GetLastError());
  Sleep(20'000);
  return WAIT_TIMEOUT;
}
