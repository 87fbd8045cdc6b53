// Loads the client of pools, has it do something, and unloads it: the library
// must go with it, but not before its workers. Ends with 7 if all was so.
//
//   pool_unloader again|idle|running|ending CLIENT LIBRARY
#include <windows.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace {

void expect(bool is_so, char const* fault) {
  if (!is_so) throw std::runtime_error(fault);
}

struct unloader {
  char const *client_name, *library;
  HMODULE client = nullptr;

  void load_and(char const* name) {
    client = LoadLibraryA(client_name);
    expect(client, "the client cannot be loaded");
    call(name);
  }

  void call(char const* name) {
    reinterpret_cast<void (*)()>(reinterpret_cast<void*>(GetProcAddress(client, name)))();
  }

  void unload_within(ULONGLONG milliseconds) {
    ULONGLONG const begin = GetTickCount64();
    FreeLibrary(client);
    expect(!GetModuleHandleA(client_name), "the client stays");
    expect(GetTickCount64() - begin < milliseconds, "unloading waits");
  }

  // The milliseconds that it took.
  ULONGLONG wait_for_library() {
    ULONGLONG const begin = GetTickCount64();
    while (GetModuleHandleA(library)) {
      expect(GetTickCount64() - begin < 30'000, "the library stays");
      Sleep(1);
    }
    return GetTickCount64() - begin;
  }

  void again() {
    for (int round = 0; round < 20; ++round) {
      load_and("run_job");
      call("stop");
      unload_within(5'000);
      wait_for_library();
    }
  }

  void idle() {
    load_and("run_job");
    unload_within(5'000);
    expect(wait_for_library() > 5'000, "the idle worker leaves early");
  }

  void run(std::string const& way) {
    if (way == "again") return again();
    if (way == "idle") return idle();
    load_and("wait_for_ever");
    // The threads cannot end while the static destructor that stops them runs.
    if (way == "running") unload_within(20'000);
  }
};

}  // namespace

int main(int, char** arguments) {
  try {
    unloader{arguments[2], arguments[3]}.run(arguments[1]);
    return 7;
  } catch (std::exception const& fault) {
    std::puts(fault.what());
    return 1;
  }
}
