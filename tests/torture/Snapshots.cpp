// Takes snapshots one after the other of a process whose threads are busy with all
// that a snapshot could have to wait for. Each must come back, and be whole.
#include <windows.h>

#include <objbase.h>

#include <cstdlib>
#include <iterator>
#include <thread>

#include "tests/torture/Torture.h"
#include "velt/debug/DebugStream.h"
#include "velt/diagnostics/DebugSnapshot.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/symbols/Symbols.h"

namespace {

using namespace velt_test;

void* keep(void* result) {
  asm volatile("" : "+r"(result));
  return result;
}

// Each takes a lock that the symbol engine, the run time or the library takes too.
void (*const deeds[])() = {
    [] { std::free(keep(std::malloc(static_cast<std::size_t>(std::rand()) % 3000))); },
    [] { CoTaskMemFree(keep(CoTaskMemAlloc(100))); },
    [] { HeapFree(GetProcessHeap(), 0, keep(HeapAlloc(GetProcessHeap(), 0, 70'000))); },
    [] { FreeLibrary(LoadLibraryW(L"shlwapi")); },
    [] { FreeLibrary(LoadLibraryW(L"symbols_late_module")); },
    [] { CloseHandle(CreateFileW(L".", 0, 7, nullptr, OPEN_EXISTING, 0, nullptr)); },
    [] { SetEnvironmentVariableW(L"VELT_TORTURE", std::rand() % 2 ? L"1" : nullptr); },
    [] { std::thread([] {}).join(); },
    [] { GetMyDebugStack(); },
    [] { Debug << "a line of " << 1 << " log\n"; },
    [] {
      try {
        throw ENotImplemented("Snapshots", 1, "nothing");
      } catch (EGeneric const&) {
      }
    },
};

// One deed for some time: two threads that do the same meet in its lock.
[[gnu::noipa]] void do_deeds(std::stop_token stop, std::mt19937 random) {
  for (++moves; !stop.stop_requested(); Sleep(random() % 3)) {
    auto const deed = deeds[random() % std::size(deeds)];
    for (auto const end = GetTickCount64() + 50; GetTickCount64() < end;) deed();
  }
}

unsigned int count(std::string const& text, std::string const& part) {
  unsigned int found = 0;
  for (auto at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++found;
  return found;
}

unsigned int taken = 0;

// In every other round each snapshot has to load the engine.
void take_snapshots(Round& round) {
  bool const is_held = round.number % 2 == 0 && SymInitialize();
  unsigned int const before = moves;
  std::vector<std::jthread> threads;
  while (threads.size() != round.threads)
    threads.emplace_back(do_deeds, std::mt19937(round.random()));
  while (moves != before + round.threads) Sleep(1);
  for (; !round.is_over(); ++taken, ++moves) {
    auto const text = TakeDebugSnapshot();
    expect(text.starts_with("Snapshot taked on "), "no snapshot");
    expect(count(text, "\nThread ") > round.threads, "threads are missing:\n" + text);
    expect(count(text, "do_deeds") >= round.threads - 1, "names are missing:\n" + text);
  }
  if (is_held) SymCleanup();
}

Registered const snapshots({"snapshots", 6, 1, 100, take_snapshots, [] {
                              expect(taken, "none was taken");
                              return std::to_string(taken) + " snapshots";
                            }});

}  // namespace
