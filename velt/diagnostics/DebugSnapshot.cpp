#include "velt/diagnostics/DebugSnapshot.h"

#include <windows.h>

#include <tlhelp32.h>

#include "velt/diagnostics/ProcessLocksInternal.h"
#include "velt/diagnostics/StoppedWalkInternal.h"
#include "velt/locks/Mutex.h"
#include "velt/symbols/EngineIsolationInternal.h"
#include "velt/symbols/SymbolsInternal.h"
#include "velt/time/Time.h"

namespace {

using namespace velt::detail;

constexpr unsigned int most_threads = 1024;
constexpr DWORD all_access = 0x1F03FF;   // to a thread, as every system knows it
constexpr DWORD loader_patience = 5000;  // milliseconds

// A new thread passes the loader before it runs.
bool loader_hangs() {
  THandle thread;
  thread.AttachHandle(CreateThread(
      nullptr, 0, [](void*) -> DWORD { return 0; }, nullptr, 0, nullptr));
  return WaitForSingleObject(thread, loader_patience) == WAIT_TIMEOUT;
}

// To load the engine waits for the loader, without limit.
bool hold_engine() {
  bool const is_loaded = dump_writer();
  return (is_loaded || !loader_hangs()) && SymInitialize();
}

// On the stack, so that nothing is allocated for it while threads are stopped.
struct recorded_threads {
  HANDLE handles[most_threads];
  DWORD ids[most_threads];
  unsigned int count = 0;
};

bool is_caller(DWORD id) { return id == GetCurrentThreadId(); }

void stop(DWORD id, recorded_threads& threads) {
  HANDLE const thread = OpenThread(all_access, FALSE, id);
  if (!is_caller(id)) SuspendThread(thread);
  threads.handles[threads.count] = thread;
  threads.ids[threads.count++] = id;
}

void stop_all(recorded_threads& threads) {
  DWORD const process = GetCurrentProcessId();
  HANDLE const list = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, process);
  THREADENTRY32 entry;
  entry.dwSize = sizeof entry;
  for (bool more = Thread32First(list, &entry); more && threads.count != most_threads;
       more = Thread32Next(list, &entry))
    if (entry.th32OwnerProcessID == process) stop(entry.th32ThreadID, threads);
  CloseHandle(list);
}

void write_and_resume(DWORD id, HANDLE thread, std::string& text) {
  if (auto const stack = walk_stopped(thread))
    text += "Thread " + std::to_string(id) +
            ": -------------------------------------------------------\n" + stack->text() + "\n\n";
  if (!is_caller(id)) ResumeThread(thread);
  CloseHandle(thread);
}

void write_all(std::string const& now, std::string& text) {
  recorded_threads threads;
  engine_isolation const isolation;
  stop_all(threads);
  text += "Snapshot taked on " + now + "\n";
  for (unsigned int i = 0; i != threads.count; ++i)
    write_and_resume(threads.ids[i], threads.handles[i], text);
}

// The text of the time is made first: its lock may be held by a thread that is
// stopped. The engine may be unloaded only when the heaps are free again.
std::string write_snapshot() {
  load_all_symbols();
  auto const now = _time_t::time().ctime();
  std::string text;
  {
    process_locks const locks(when_taken::go_on);
    if (locks.held()) write_all(now, text);
  }
  SymCleanup();
  return text;
}

}  // namespace

std::string TakeDebugSnapshot() {
  TLock const symbols(symbol_lock());
  return hold_engine() ? write_snapshot() : std::string();
}
