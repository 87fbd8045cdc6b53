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

using Deed = void (*)();

// Each takes a lock that the symbol engine, the run time or the library takes too.
Deed const deeds[] = {
    [] { operator delete(operator new(std::rand() % 3000)); },
    [] { HeapFree(GetProcessHeap(), 0, HeapAlloc(GetProcessHeap(), 0, 70'000)); },
    [] { CloseHandle(CreateFileW(L".", 0, 7, nullptr, OPEN_EXISTING, 0, nullptr)); },
    [] { SetEnvironmentVariableW(L"VELT_TORTURE", std::rand() % 2 ? L"1" : nullptr); },
    [] { std::thread([] {}).join(); },
    [] { GetMyDebugStack(); },
    [] { Debug << "a line of " << 1 << " log\n"; },
};

void load() { FreeLibrary(LoadLibraryW(L"symbols_late_module")); }

void throw_and_catch() {
  try {
    throw ENotImplemented("Snapshots", 1, "nothing");
  } catch (EGeneric const&) {
  }
}

// One deed for some time: two threads that do the same meet in its lock.
[[gnu::noipa]] void do_deeds(std::stop_token stop, std::mt19937 random, Deed last) {
  for (++moves; !stop.stop_requested(); Sleep(random() % 3)) {
    auto const number = random() % (std::size(deeds) + 1);
    auto const deed = number == std::size(deeds) ? last : deeds[number];
    for (auto const end = GetTickCount64() + 50; GetTickCount64() < end;) deed();
  }
}

unsigned int taken = 0;

// In every fourth round the engine has to be loaded for each. Libraries are loaded in one
// round and exceptions thrown in the next: under Wine 10 a throw in one thread while another
// loads or unloads a library may find no handler.
void take_snapshots(Round& round) {
  bool const is_cold = round.number % 4 == 0;
  if (is_cold && round.number != 0) SymCleanup();
  auto const last = round.number % 2 == 0 ? load : throw_and_catch;
  unsigned int const before = moves;
  std::vector<std::jthread> threads;
  while (threads.size() != round.threads)
    threads.emplace_back(do_deeds, std::mt19937(round.random()), last);
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
  threads.clear();  // or the engine would find their library, and keep its file open
  if (is_cold) SymInitialize();
}

Registered const scene({"snapshots", 6, take_snapshots,
                        [] { return std::to_string(taken) + " snapshots"; }});

}  // namespace
