// Loads a DLL that uses pools and has it do something. Then the process ends while
// pools are at work, or the DLL is unloaded: the library must go with it, but not
// before its workers. Ends with 7 if all was so. Does not use the library itself.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "tests/support/Imports.h"

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

// The worker leaves when it has been idle for ten seconds.
void unload_with_idle_worker() {
  call("run_job");
  static HANDLE const time_is_over = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  auto const wait = [](auto platform, HANDLE object, DWORD time, BOOL alertable) {
    if (time != 10'000) return platform(object, time, alertable);
    HANDLE const both[] = {object, time_is_over};
    return WaitForMultipleObjectsEx(2, both, FALSE, INFINITE, alertable) ? WAIT_TIMEOUT : 0ul;
  };
  new velt_test::Replacement{VELT_CALL(WaitForSingleObjectEx), wait};  // outlives the library
  call("run_job");  // from which the worker goes back to the wait that is replaced
  unload_within(5'000);
  expect(!library_goes_within(300), "the idle worker leaves early");
  SetEvent(time_is_over);
  expect(library_goes_within(30'000), "the library stays");
}

void unload_again_and_again() {
  for (int round = 0; round < 20; ++round) {
    call("run_job");
    call("stop");
    unload_within(5'000);
    expect(library_goes_within(30'000), "the library stays");
  }
}

}  // namespace

int main(int, char** arguments) {
  std::string_view const way = arguments[1];
  if (way == "return") call("start_jobs");
  if (way == "exit") call("start_jobs"), ExitProcess(7);
  if (way == "ending") call("wait_for_ever");
  // Threads cannot end while the static destructor that stops them runs.
  if (way == "running") call("wait_for_ever"), unload_within(20'000);
  if (way == "again") unload_again_and_again();
  if (way == "idle") unload_with_idle_worker();
  return 7;
}
