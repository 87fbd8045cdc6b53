#include "velt/diagnostics/DebugSnapshot.h"

#include <windows.h>

#include <tlhelp32.h>

#include <vector>

#include "velt/diagnostics/ProcessLocksInternal.h"
#include "velt/diagnostics/StoppedWalkInternal.h"
#include "velt/symbols/SymbolEngineInternal.h"
#include "velt/time/Time.h"

namespace {

using namespace velt::detail;

constexpr unsigned int most_threads = 1024;
constexpr DWORD all_access = 0x1F03FF;           // to a thread, on every system
constexpr ULONGLONG patience_with_loader = 5000;  // milliseconds

bool loader_hangs() {
  for (auto const end = GetTickCount64() + patience_with_loader; GetTickCount64() < end; Sleep(1))
    if (loader_lock().held()) return false;
  return true;
}

bool engine_is_loaded() {
  symbol_hold const symbols;
  return symbols && loaded_engine();
}

struct seen_thread {
  HANDLE handle;
  DWORD id;
  std::optional<short_stack> stack;
};

// The memory is reserved before a thread is stopped.
std::vector<seen_thread> no_threads() {
  std::vector<seen_thread> threads;
  threads.reserve(most_threads);
  return threads;
}

bool is_caller(DWORD id) { return id == GetCurrentThreadId(); }

void stop_all(std::vector<seen_thread>& threads) {
  DWORD const process = GetCurrentProcessId();
  HANDLE const list = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, process);
  THREADENTRY32 entry;
  entry.dwSize = sizeof entry;
  for (bool more = Thread32First(list, &entry); more && threads.size() != most_threads;
       more = Thread32Next(list, &entry)) {
    if (entry.th32OwnerProcessID != process) continue;
    auto const id = entry.th32ThreadID;
    auto const& stopped = threads.emplace_back(OpenThread(all_access, FALSE, id), id);
    if (!is_caller(id)) SuspendThread(stopped.handle);
  }
  CloseHandle(list);
}

void walk_and_resume(seen_thread& thread, short_stack const& callers) {
  if (is_caller(thread.id)) {
    thread.stack = callers;
  } else {
    thread.stack = walk_stopped(thread.handle);
    ResumeThread(thread.handle);
  }
  CloseHandle(thread.handle);
}

std::vector<seen_thread> see_all(short_stack const& callers) {
  auto threads = no_threads();
  process_locks const locks(when_taken::go_on);
  if (!locks.held()) return threads;
  engine_isolation const isolation;
  stop_all(threads);
  for (auto& thread : threads) walk_and_resume(thread, callers);
  return threads;
}

std::string block(seen_thread const& thread) {
  return "Thread " + std::to_string(thread.id) +
         ": -------------------------------------------------------\n" + thread.stack->text() +
         "\n\n";
}

}  // namespace

// Names are looked up after the threads run again, because that takes long.
std::string TakeDebugSnapshot() {
  if (!engine_is_loaded() && loader_hangs()) return {};
  engine_hold const engine;
  if (!engine) return {};
  auto const own_stack = prepare_walks();
  auto text = "Snapshot taked on " + _time_t::time().ctime() + "\n";
  auto const threads = see_all(own_stack);
  for (auto const& thread : threads)
    if (thread.stack) text += block(thread);
  return threads.empty() ? std::string() : text;
}
