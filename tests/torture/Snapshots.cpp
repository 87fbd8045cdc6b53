// Takes snapshots one after the other of a process whose threads are busy with all
// that a snapshot could have to wait for. Each must come back, and be whole.
#include <windows.h>

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

// Each takes a lock that the symbol engine, the run time or the library takes too.
void (*const deeds[])() = {
    [] { operator delete(operator new(std::rand() % 3000)); },
    [] { HeapFree(GetProcessHeap(), 0, HeapAlloc(GetProcessHeap(), 0, 70'000)); },
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

unsigned int taken = 0;

// In every fourth round the engine has to be loaded for each.
void take_snapshots(Round& round) {
  if (round.number % 4 == 0) SymInitialize();
  unsigned int const before = moves;
  std::vector<std::jthread> threads;
  while (threads.size() != round.threads)
    threads.emplace_back(do_deeds, std::mt19937(round.random()));
  while (moves != before + round.threads) Sleep(1);
  do {
    auto const text = TakeDebugSnapshot();
    expect(text.starts_with("Snapshot taked on "), "no snapshot");
    unsigned int found = 0;
    for (auto at = text.find("do_deeds"); at != text.npos; at = text.find("do_deeds", at + 1))
      ++found;
    expect(found >= round.threads - 1, "threads or their names are missing:\n" + text);
    ++taken, ++moves;
  } while (!round.is_over());
  if (round.number % 4 == 2) SymCleanup();
}

Registered const scene({"snapshots", 6, take_snapshots,
                        [] { return std::to_string(taken) + " snapshots"; }});

}  // namespace
