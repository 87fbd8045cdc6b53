#include "velt/symbols/SymbolEngineInternal.h"

#include <malloc.h>
#include <tlhelp32.h>

#include <new>
#include <type_traits>
#include <utility>

#include "velt/base/EntryInternal.h"
#include "velt/base/LoadOrderInternal.h"
#include "velt/base/ThreadSlotInternal.h"

namespace velt::detail {
namespace {

// Without SYMOPT_LOAD_LINES the engine never finds a line. SYMOPT_DEFERRED_LOADS makes
// it read a module's symbols when it first needs them, so that the start stays cheap.
constexpr DWORD engine_options = SYMOPT_UNDNAME | SYMOPT_DEFERRED_LOADS | SYMOPT_LOAD_LINES;

template <class Entry>
bool bind(HMODULE library, char const* name, Entry& entry) {
  entry = find_entry<std::remove_pointer_t<Entry>>(library, name);
  return entry != nullptr;
}

// False if a required entry is missing. Those after MiniDumpWriteDump are optional: they
// find modules that are loaded later, forget modules, and serve walks as call-backs.
bool bind_all(HMODULE library, debug_help& calls) {
  bool const complete = bind(library, "SymInitialize", calls.initialize) &&
                        bind(library, "SymCleanup", calls.cleanup) &&
                        bind(library, "SymGetLineFromAddr64", calls.line) &&
                        bind(library, "SymGetModuleInfo64", calls.module_info) &&
                        bind(library, "SymGetSymFromAddr64", calls.symbol) &&
                        bind(library, "SymSetOptions", calls.set_options) &&
                        bind(library, "SymGetTypeInfo", calls.type_info) &&
                        bind(library, "SymSetContext", calls.set_context) &&
                        bind(library, "SymEnumSymbols", calls.enumerate) &&
                        bind(library, "SymFromAddr", calls.symbol_info) &&
                        bind(library, "StackWalk64", calls.walk) &&
                        bind(library, "MiniDumpWriteDump", calls.write_dump);
  bind(library, "SymRefreshModuleList", calls.refresh);
  bind(library, "SymLoadModuleExW", calls.load_module);
  bind(library, "SymUnloadModule64", calls.unload_module);
  bind(library, "SymFunctionTableAccess64", calls.function_table);
  bind(library, "SymGetModuleBase64", calls.module_base);
  return complete;
}

// The platform's failures come as null or as INVALID_HANDLE_VALUE.
void close_if_held(HANDLE handle) {
  if (THandle::IsValidHandle(handle)) CloseHandle(handle);
}

// Under Wine each run time has a heap of its own, whose lock a stopped thread may hold.
HANDLE heap_of(wchar_t const* run_time) {
  auto const module = GetModuleHandleW(run_time);
  decltype(&_get_heap_handle) ask;
  if (!module || !bind(module, "_get_heap_handle", ask)) return nullptr;
  auto const heap = reinterpret_cast<HANDLE>(ask());
  return heap == GetProcessHeap() ? nullptr : heap;
}

}  // namespace

std::unique_ptr<engine_library> engine_library::load() {
  auto const module = LoadLibraryA("dbghelp.dll");
  if (!module) return nullptr;
  debug_help calls;
  bool const is_whole = bind_all(module, calls);
  auto library = is_whole ? new (std::nothrow) engine_library(module, calls) : nullptr;
  if (!library) FreeLibrary(module);
  return std::unique_ptr<engine_library>(library);
}

engine_library::engine_library(HMODULE library, debug_help const& bound)
    : heaps{heap_of(L"msvcrt"), heap_of(L"ucrtbase")}, module(library), calls(bound) {}

// The engine lists the modules that are loaded now; ensure_module() adds later ones.
// Nothing reads the snapshot.
symbol_engine::symbol_engine(std::unique_ptr<engine_library> loaded)
    : library(std::move(loaded)), calls(library->entries()) {
  calls.set_options(engine_options);
  calls.initialize(GetCurrentProcess(), nullptr, TRUE);
  snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, 0);
}

symbol_engine::~symbol_engine() {
  close_if_held(snapshot);
  calls.cleanup(GetCurrentProcess());
}

namespace {

std::atomic<long> hold_count = 0;
// Never destroyed: if the process ends with the engine held, the platform may have
// stopped threads that own the lock of the heap.
std::atomic<symbol_engine*> engine = nullptr;

// An engine without a hold could not be ended, because a lock was unavailable. The next
// hold takes it over.
bool hold_if_loaded() {
  if (hold_count == 0 && !engine) return false;
  ++hold_count;
  return true;
}

bool start_engine(std::unique_ptr<engine_library>& library) {
  engine = new (std::nothrow) symbol_engine(std::move(library));
  hold_count += engine != nullptr;
  return engine != nullptr;
}

// The caller frees the returned library after both locks: FreeLibrary waits for the
// loader lock.
std::unique_ptr<engine_library> end_engine() {
  std::unique_ptr<symbol_engine> const ended(engine.exchange(nullptr));
  ++engine_changes;
  forget_texts();
  return ended ? std::move(ended->library) : nullptr;
}

// False also if symbol_lock() is unavailable: the hold is released, but the engine stays.
// Therefore the count is atomic.
bool release_is_last() {
  symbol_hold const symbols;
  return --hold_count == 0 && engine && symbols;
}

// Runs the action under both locks, and holds neither while it waits for the other: the
// owner of the loader lock may wait for symbol_lock(), to report an exception out of a
// DllMain.
template <class Action>
bool under_loader_lock(Action action) {
  for (loader_patience patience;; patience.pause()) {
    symbol_hold const symbols;
    if (!symbols) return false;
    loader_lock const loader;
    if (loader.held()) return action();
    if (patience.is_over()) return false;
  }
}

}  // namespace

std::atomic<unsigned> engine_changes = 0;

symbol_engine* loaded_engine() noexcept { return engine; }

namespace {

VELT_LOAD_STEP(handler_active_slot) thread_slot<collecting_scope> const collecting;

// An abandoned mutex counts as taken: a thread that ended with it must not stop all reports.
// A limited wait also returns false when a queued call has run.
class engine_mutex final : public TMutex {
public:
  bool Lock(unsigned int limit) override {
    auto const result = WaitForSingleObject(limit, !collecting_scope::exists());
    return result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
  }
  void Lock() override {
    while (!Lock(INFINITE)) {
    }
  }
};

}  // namespace

collecting_scope::collecting_scope() noexcept : outer(collecting.get()) { collecting.set(this); }
collecting_scope::~collecting_scope() { collecting.set(outer); }
bool collecting_scope::exists() noexcept { return collecting.get(); }

// A local object, because other static objects may need the lock before those of this
// file are built.
TMutex& symbol_lock() {
  static engine_mutex lock;
  return lock;
}

namespace {

VELT_LOAD_STEP(symbol_lock_made) build_now const lock_made(symbol_lock);

}  // namespace

// After a second in vain later calls try without waiting, until one of them succeeds.
bool lock_symbols() {
  if (!owns_loader_lock()) {
    symbol_lock().Lock();
    return true;
  }
  static std::atomic<bool> in_vain = false;
  auto now = GetTickCount64();
  auto const end = now + (in_vain ? 0 : 1000);
  do {
    if (symbol_lock().Lock(static_cast<DWORD>(end - now))) {
      in_vain = false;
      return true;
    }
    now = GetTickCount64();
  } while (now < end);
  in_vain = true;
  return false;
}

symbol_hold::symbol_hold()
    : is_nested(isolating_thread == GetCurrentThreadId()), held(is_nested || lock_symbols()) {}

symbol_hold::~symbol_hold() {
  if (held && !is_nested) symbol_lock().Unlock();
}

std::array<void*, 2> heaps_of_run_times() noexcept {
  auto const loaded = loaded_engine();
  return loaded ? loaded->library->heaps : std::array<void*, 2>{};
}

void abandon_engine() {
  if (auto const loaded = loaded_engine()) loaded->abandon();
}

void* dump_writer() {
  auto const loaded = loaded_engine();
  return loaded ? reinterpret_cast<void*>(loaded->entries().write_dump) : nullptr;
}

}  // namespace velt::detail

using namespace velt::detail;

bool SymInitialize() {
  {
    symbol_hold const symbols;
    if (!symbols) return false;
    if (hold_if_loaded()) return true;
  }
  // LoadLibrary waits for the loader lock, so it runs outside symbol_lock(). Two threads
  // may come here at once; the second frees its reference to the library again.
  auto library = engine_library::load();
  return library && under_loader_lock([&] { return hold_if_loaded() || start_engine(library); });
}

// Between the two steps another thread may take a new hold; the engine then stays.
void SymCleanup() {
  if (!release_is_last()) return;
  std::unique_ptr<engine_library> library;
  under_loader_lock([&] {
    if (hold_count == 0) library = end_engine();
    return true;
  });
}

// The engine's lock is given back before each pause.
bool EnsureModuleSymbolsLoaded(unsigned __int64 address) {
  for (loader_patience patience;; patience.pause()) {
    auto state = module_state::unknown;
    try_asking_engine([&](symbol_engine& asked) {
      state = asked.ensure_module(address);
      return true;
    });
    if (state != module_state::loader_is_busy || patience.is_over())
      return state == module_state::known;
  }
}
