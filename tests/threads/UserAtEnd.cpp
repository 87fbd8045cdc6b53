// Has a DLL use the library in the way that the argument names. Then the process ends
// while its threads are at work, or the DLL is unloaded: the library must go with it,
// but not before its workers. Ends with 7 if all was so. Does not use the library itself.
#include <windows.h>

#include <cstdio>
#include <string_view>

namespace {

bool library_goes_within(ULONGLONG milliseconds) {
  for (ULONGLONG const end = GetTickCount64() + milliseconds; GetTickCount64() < end; Sleep(1))
    if (!GetModuleHandleW(L"velt")) return true;
  return false;
}

char const* fault_of(std::string_view way) {
  HMODULE const client = LoadLibraryW(L"client_at_end");
  auto const use = reinterpret_cast<void*>(GetProcAddress(client, "use_library"));
  reinterpret_cast<void (*)(std::string_view)>(use)(way);
  if (way == "exit") ExitProcess(7);
  if (way == "return" || way == "lock") return nullptr;
  ULONGLONG const begin = GetTickCount64();
  FreeLibrary(client);
  if (GetModuleHandleW(L"client_at_end")) return "the client stays";
  // Threads cannot end while the static destructor that stops them runs.
  ULONGLONG const limit = way == "running" ? 20'000 : 5'000;
  if (GetTickCount64() - begin >= limit) return "unloading waits";
  if (way == "stopped" && !library_goes_within(30'000)) return "the library stays";
  if (way == "idle" && library_goes_within(300)) return "the idle worker leaves early";
  return nullptr;
}

}  // namespace

int main(int, char** arguments) {
  std::string_view const way = arguments[1];
  for (int round = 0; round < (way == "stopped" ? 20 : 1); ++round)
    if (char const* const fault = fault_of(way)) return std::puts(fault), 1;
  return 7;
}
