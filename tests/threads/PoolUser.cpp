// Loads a DLL that uses pools and has it do something. Then the process ends while
// pools are at work, or the DLL is unloaded: the library must go with it, but not
// before its workers. Ends with 7 if all was so. Does not use the library itself.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

void expect(bool is_so, char const* fault) {
  if (is_so) return;
  std::puts(fault);
  std::fflush(stdout);
  std::_Exit(1);
}

HMODULE client;

void call(char const* name) {
  if (!client) client = LoadLibraryW(L"pool_client");
  reinterpret_cast<void (*)()>(reinterpret_cast<void*>(GetProcAddress(client, name)))();
}

void unload_within(ULONGLONG milliseconds) {
  ULONGLONG const begin = GetTickCount64();
  FreeLibrary(client);
  client = nullptr;
  expect(!GetModuleHandleW(L"pool_client"), "the client stays");
  expect(GetTickCount64() - begin < milliseconds, "unloading waits");
}

bool library_goes_within(ULONGLONG milliseconds) {
  for (ULONGLONG const end = GetTickCount64() + milliseconds; GetTickCount64() < end; Sleep(1))
    if (!GetModuleHandleW(L"velt")) return true;
  return false;
}

}  // namespace

int main(int, char** arguments) {
  std::string_view const way = arguments[1];
  if (way == "return") call("start_jobs");
  if (way == "exit") call("start_jobs"), ExitProcess(7);
  // Threads cannot end while the static destructor that stops them runs.
  if (way == "running") call("wait_for_ever"), unload_within(20'000);
  for (int round = 0; way == "stopped" && round < 20; ++round) {
    call("run_job");
    call("stop");
    unload_within(5'000);
    expect(library_goes_within(30'000), "the library stays");
  }
  if (way == "idle") {
    call("run_job");
    unload_within(5'000);
    expect(!library_goes_within(300), "the idle worker leaves early");
  }
  return 7;
}
