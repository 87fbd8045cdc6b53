// Loads the client of pools, has it run a job, and unloads it: the library must
// go with it, but not before its workers. Ends with 0 if all was so.
//
//   pool_unloader stopped|idle CLIENT LIBRARY
#include <windows.h>

#include <cstdio>
#include <cstring>

#include "tests/threads/PoolClient.h"

namespace {

template <class Call>
Call entry(HMODULE module, char const* name) {
  return reinterpret_cast<Call>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

int fail(char const* fault) {
  std::puts(fault);
  return 1;
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 4) return 2;
  bool const stopped = std::strcmp(arguments[1], "stopped") == 0;
  char const* const library = arguments[3];
  HMODULE const client = LoadLibraryA(arguments[2]);
  if (!client) return fail("the client cannot be loaded");
  entry<run_job_call>(client, "run_job")();
  if (stopped) entry<stop_call>(client, "stop")();

  ULONGLONG const begin = GetTickCount64();
  FreeLibrary(client);
  if (GetTickCount64() - begin > 1'000) return fail("unloading waits");
  if (GetModuleHandleA(arguments[2])) return fail("the client stays");
  if (!stopped && !GetModuleHandleA(library)) return fail("the library leaves its worker behind");
  while (GetModuleHandleA(library))
    if (GetTickCount64() - begin > 30'000)
      return fail("the library stays");
    else
      Sleep(10);
  ULONGLONG const passed = GetTickCount64() - begin;
  if (!stopped && passed < 8'000) return fail("the idle worker leaves early");
  std::printf("unloaded after %llu ms\n", static_cast<unsigned long long>(passed));
  return 0;
}
