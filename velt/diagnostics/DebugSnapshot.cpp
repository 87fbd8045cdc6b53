#include "velt/diagnostics/DebugSnapshot.h"

#include <windows.h>

#include <malloc.h>
#include <psapi.h>
#include <tlhelp32.h>

#include <cstdint>
#include <optional>

#include "velt/diagnostics/ProcessLocksInternal.h"
#include "velt/diagnostics/Symbols.h"
#include "velt/diagnostics/SymbolsInternal.h"
#include "velt/locks/Mutex.h"
#include "velt/time/Time.h"

namespace {

using namespace velt::detail;

constexpr unsigned int most_threads = 1024;
constexpr unsigned int most_frames = 64;
constexpr unsigned int most_modules = 1024;
constexpr ULONGLONG loader_patience = 2000;  // milliseconds

// Tries for a while: with libraries coming and going all the time one try would
// often fail, and a thread that hangs in the loader never lets go.
class patient_loader_lock {
public:
  patient_loader_lock() {
    auto const end = GetTickCount64() + loader_patience;
    for (guard.emplace(); !held() && GetTickCount64() < end; guard.emplace()) Sleep(10);
  }
  bool held() const { return guard->held(); }

private:
  std::optional<LoaderLockGuard> guard;
};

// To load the engine takes the loader's lock, and would wait for it without limit.
bool hold_engine() {
  bool const is_loaded = dump_writer();
  if (is_loaded) return SymInitialize();
  patient_loader_lock const loader;
  return loader.held() && SymInitialize();
}

// The engine loads the symbols of a module when it is first asked for one, which
// opens files. Done while threads are stopped, this could wait for one of them.
void load_all_symbols() {
  THandle process;
  process.AttachHandle(
      OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, GetCurrentProcessId()));
  HMODULE modules[most_modules];
  DWORD size = 0;
  K32EnumProcessModules(process, modules, sizeof modules, &size);
  for (unsigned int i = 0; i != std::min<std::size_t>(size / sizeof *modules, most_modules); ++i)
    SymGetNameFromAddress(reinterpret_cast<std::uintptr_t>(modules[i]));
}

// The heap of a run time that allocates from one of its own.
class run_time_heap_guard {
public:
  explicit run_time_heap_guard(HANDLE heap) noexcept
      : locked(heap && heap != GetProcessHeap() && HeapLock(heap) ? heap : nullptr) {}
  run_time_heap_guard(run_time_heap_guard const&) = delete;
  run_time_heap_guard& operator=(run_time_heap_guard const&) = delete;
  ~run_time_heap_guard() {
    if (locked) HeapUnlock(locked);
  }

private:
  HANDLE const locked;
};

HANDLE heap_of_own_run_time() { return reinterpret_cast<HANDLE>(_get_heap_handle()); }

// For holders of the loader's lock.
HANDLE heap_of_engines_run_time() {
  auto const module = GetModuleHandleW(L"ucrtbase");
  if (!module) return nullptr;
  auto const ask = reinterpret_cast<decltype(&_get_heap_handle)>(
      reinterpret_cast<void*>(GetProcAddress(module, "_get_heap_handle")));
  return ask ? reinterpret_cast<HANDLE>(ask()) : nullptr;
}

// On the stack, so that nothing is allocated for it while threads are stopped.
struct recorded_threads {
  HANDLE handles[most_threads];
  DWORD ids[most_threads];
  unsigned int count = 0;
};

void stop(DWORD id, recorded_threads& threads) {
  HANDLE const thread = OpenThread(THREAD_ALL_ACCESS, FALSE, id);
  if (id != GetCurrentThreadId()) SuspendThread(thread);
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

void write_stack(DWORD id, HANDLE thread, CONTEXT& context, std::string& text) {
  unsigned __int64 frames[most_frames] = {};
  auto const count = StackWalk(frames, &context, thread, 0, most_frames);
  text += "Thread " + std::to_string(id) +
          ": -------------------------------------------------------\n" +
          SymGetStackTrace(frames, count) + "\n\n";
}

void write_and_resume(DWORD id, HANDLE thread, std::string& text) {
  CONTEXT context{};
  context.ContextFlags = CONTEXT_FULL;
  if (GetThreadContext(thread, &context)) write_stack(id, thread, context, text);
  if (id != GetCurrentThreadId()) ResumeThread(thread);
  CloseHandle(thread);
}

// The time is converted before the stop, since the run time takes a lock for it.
void write_all(std::string& text) {
  auto const now = _time_t::time().ctime();
  recorded_threads threads;
  stop_all(threads);
  text += "Snapshot taked on " + now + "\n";
  for (unsigned int i = 0; i != threads.count; ++i)
    write_and_resume(threads.ids[i], threads.handles[i], text);
}

void write_under_locks(bool loader_is_held, std::string& text) {
  run_time_heap_guard const own(heap_of_own_run_time());
  run_time_heap_guard const engines(loader_is_held ? heap_of_engines_run_time() : nullptr);
  write_all(text);
}

}  // namespace

std::string TakeDebugSnapshot() {
  TLock const symbols(symbol_lock());
  std::string text;
  if (!hold_engine()) return text;
  patient_loader_lock const loader;
  load_all_symbols();
  std::optional<HeapLockGuard> heap(std::in_place);
  write_under_locks(loader.held(), text);
  // To unload the engine takes the loader's lock, whose holder may be waiting for
  // the heap.
  if (!loader.held()) heap.reset();
  SymCleanup();
  return text;
}
