// Loads the client of pools, has it do something, and unloads it: the library
// must go with it, but not before its workers. Ends with 0 if all was so.
//
//   pool_unloader again|idle|running CLIENT LIBRARY
#include <windows.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "tests/threads/PoolClient.h"

namespace {

void expect(bool is_so, char const* fault) {
  if (!is_so) throw std::runtime_error(fault);
}

template <class Call>
Call entry(HMODULE module, char const* name) {
  return reinterpret_cast<Call>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

struct unloader {
  char const *client_name, *library;
  HMODULE client = nullptr;

  void load() {
    client = LoadLibraryA(client_name);
    expect(client, "the client cannot be loaded");
  }

  // The milliseconds that it took.
  ULONGLONG unload() {
    ULONGLONG const begin = GetTickCount64();
    FreeLibrary(client);
    expect(!GetModuleHandleA(client_name), "the client stays");
    return GetTickCount64() - begin;
  }

  ULONGLONG wait_for_library() {
    ULONGLONG const begin = GetTickCount64();
    while (GetModuleHandleA(library)) {
      expect(GetTickCount64() - begin < 30'000, "the library stays");
      Sleep(1);
    }
    return GetTickCount64() - begin;
  }

  void again() {
    for (int round = 0; round < 200; ++round) {
      load();
      entry<run_job_call>(client, "run_job")();
      entry<stop_call>(client, "stop")();
      expect(unload() < 5'000, "unloading waits");
      wait_for_library();
    }
  }

  void idle() {
    load();
    entry<run_job_call>(client, "run_job")();
    expect(unload() < 5'000, "unloading waits");
    expect(GetModuleHandleA(library), "the library leaves its worker behind");
    expect(wait_for_library() > 5'000, "the idle worker leaves early");
  }

  // Its threads cannot end while the static destructor that stops them runs.
  void running() {
    load();
    entry<start_jobs_call>(client, "start_jobs")(1);
    expect(unload() < 20'000, "unloading does not kill the worker");
  }
};

}  // namespace

int main(int count, char** arguments) {
  if (count != 4) return 2;
  std::string const way = arguments[1];
  unloader test{arguments[2], arguments[3]};
  try {
    way == "again" ? test.again() : way == "idle" ? test.idle() : test.running();
    return 0;
  } catch (std::exception const& fault) {
    std::puts(fault.what());
    return 1;
  }
}
