// Takes snapshots one after the other of a process whose threads are busy with all
// that a snapshot could have to wait for. Each must come back, and be whole.
//
//   snapshot_torture [--seconds N] [--seed S] [--threads T]
//
// A snapshot that hangs hangs the program. Ends with 0 if nothing was found, with
// 1 after a fault, with 2 after an option that it does not know.
#include <windows.h>

#include <objbase.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TortureOptions.h"
#include "velt/debug/DebugStream.h"
#include "velt/diagnostics/DebugSnapshot.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/symbols/Symbols.h"
#include "velt/threads/ThreadClass.h"

namespace {

[[noreturn]] void fail(std::string const& fault) {
  std::printf("snapshot_torture: %s\n", fault.c_str());
  std::fflush(stdout);
  std::_Exit(1);
}

struct TextKeeper : TStreamWriter {
  void StreamWriteString(char const* text, unsigned __int64 size) override {
    last.assign(text, size);
  }
  std::string last;
};

TDebugStream& shared_stream() {
  static TDebugStream stream(new TextKeeper);
  return stream;
}

void* keep(void* result) {
  asm volatile("" : "+r"(result));
  return result;
}

using Deed = void (*)();

// What threads do: each takes a lock that the symbol engine, the run time or the
// library takes too.
Deed const deeds[] = {
    [] { std::free(keep(std::malloc(static_cast<std::size_t>(std::rand()) % 3000))); },
    [] { CoTaskMemFree(keep(CoTaskMemAlloc(100))); },
    [] { HeapFree(GetProcessHeap(), 0, keep(HeapAlloc(GetProcessHeap(), 0, 70'000))); },
    [] { FreeLibrary(LoadLibraryW(L"shlwapi")); },
    [] { FreeLibrary(LoadLibraryW(L"symbols_late_module")); },
    [] {
      try {
        throw ENotImplemented("SnapshotTorture", 1, "nothing");
      } catch (EGeneric const&) {
      }
    },
    [] { shared_stream() << "a line of " << 1 << " log\n"; },
    [] { CloseHandle(CreateFileW(L".", 0, 7, nullptr, OPEN_EXISTING, 0, nullptr)); },
    [] {
      SetEnvironmentVariableW(L"VELT_TORTURE", L"1");
      SetEnvironmentVariableW(L"VELT_TORTURE", nullptr);
    },
    [] {
      auto const now = std::time(nullptr);
      keep(std::localtime(&now));
    },
    [] { std::thread([] {}).join(); },
    [] { GetMyDebugStack(); },
};

class Doer final : public TThreadClass {
public:
  explicit Doer(unsigned int seed) : random(seed) { StartThread(); }
  ~Doer() {
    stop = true;
    ::WaitForSingleObject(handle, INFINITE);
  }

  void ThreadBody() override {
    ++begun;
    while (!stop) {
      // One deed for some time: two threads that do the same meet in its lock.
      auto const deed = deeds[random() % std::size(deeds)];
      for (auto end = GetTickCount64() + 50; !stop && GetTickCount64() < end;) deed();
      Sleep(random() % 3, FALSE);
    }
  }

  static inline std::atomic<unsigned int> begun = 0;

private:
  std::mt19937 random;
  std::atomic<bool> stop = false;
};

unsigned int count(std::string const& text, std::string const& part) {
  unsigned int found = 0;
  for (auto at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++found;
  return found;
}

// For every tenth the engine has to be loaded.
void take(unsigned int number, unsigned int threads) {
  bool const cold = number % 10 == 9;
  if (cold) SymCleanup();
  auto const text = TakeDebugSnapshot();
  if (cold) SymInitialize();
  if (!text.starts_with("Snapshot taked on ")) fail("no snapshot");
  if (count(text, "\nThread ") <= threads) fail("threads are missing:\n" + text);
  if (count(text, "ThreadBody") < threads - 1) fail("names are missing:\n" + text);
}

}  // namespace

int main(int argument_count, char** arguments) {
  auto const options =
      velt_test::torture_options(argument_count, arguments, "--threads", 6, 1, 100);
  std::printf("snapshot_torture --seconds %u --seed %u --threads %u\n", options.seconds,
              options.seed, options.threads);
  SaveMiniDumpOnCppException = false;
  std::vector<std::unique_ptr<Doer>> doers;
  for (unsigned int i = 0; i < options.threads; ++i)
    doers.push_back(std::make_unique<Doer>(options.seed + i));
  // A thread that has not come to its body yet has no name to look for.
  while (Doer::begun != options.threads) Sleep(1);

  unsigned int taken = 0;
  SymInitialize();
  for (auto const end = GetTickCount64() + options.seconds * 1000; GetTickCount64() < end;)
    take(taken++, options.threads);
  SymCleanup();
  std::printf("%u snapshots\n", taken);
}
