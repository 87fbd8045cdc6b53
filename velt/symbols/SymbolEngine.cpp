#include "velt/symbols/SymbolEngineInternal.h"

#include <malloc.h>
#include <psapi.h>
#include <tlhelp32.h>

#include <algorithm>
#include <limits>
#include <new>
#include <type_traits>

#include "velt/base/EntryInternal.h"
#include "velt/base/LoadOrderInternal.h"
#include "velt/symbols/LoaderLockInternal.h"
#include "velt/symbols/TextCacheInternal.h"

namespace velt::detail {
namespace {

// Sizes of the platform's records, of which newer headers have longer ones than
// older engines accept.
constexpr DWORD size_of_module_record = 1672;
constexpr DWORD size_of_line_record = 40;
constexpr DWORD size_of_symbol_record = 32;
constexpr DWORD longest_symbol_name = 1960;

// Without the lines the engine leaves them out of its tables altogether.
constexpr DWORD engine_options = SYMOPT_UNDNAME | SYMOPT_DEFERRED_LOADS | SYMOPT_LOAD_LINES;

template <class Entry>
bool bind(HMODULE library, char const* name, Entry& entry) {
  entry = find_entry<std::remove_pointer_t<Entry>>(library, name);
  return entry != nullptr;
}

// False if one that is required is missing.
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
  return complete;
}

void close_if_held(HANDLE handle) {
  if (THandle::IsValidHandle(handle)) CloseHandle(handle);
}

HANDLE heap_of(wchar_t const* run_time) {
  auto const module = GetModuleHandleW(run_time);
  decltype(&_get_heap_handle) ask;
  if (!module || !bind(module, "_get_heap_handle", ask)) return nullptr;
  auto const heap = reinterpret_cast<HANDLE>(ask());
  return heap == GetProcessHeap() ? nullptr : heap;
}

std::uint64_t last_byte(std::uint64_t start, std::uint64_t size) {
  auto const last = start + (size - 1);
  return last >= start ? last : std::numeric_limits<std::uint64_t>::max();
}

// Path of the module at the base. Asked through a real handle, the platform
// reads its list of modules from outside; through the one that stands for the
// process it would wait for the loader lock, which a thread that is suspended
// for a walk may have.
template <std::size_t size>
bool find_path(HMODULE base, wchar_t (&path)[size]) {
  HANDLE const process =
      OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, GetCurrentProcessId());
  bool const found = process && K32GetModuleFileNameExW(process, base, path, size) != 0;
  close_if_held(process);
  return found;
}

}  // namespace

std::vector<address_ranges::range>::const_iterator address_ranges::first_reaching(
    std::uint64_t address) const {
  return std::lower_bound(sorted.begin(), sorted.end(), address,
                          [](range const& each, std::uint64_t a) { return each.last < a; });
}

bool address_ranges::meets(std::uint64_t address) const {
  auto const found = first_reaching(address);
  return found != sorted.end() && last_byte(address, 8) >= found->first;
}

void address_ranges::insert(std::uint64_t start, std::uint64_t size) {
  if (size == 0) return;
  auto const last = last_byte(start, size);
  auto const next = first_reaching(start);
  if (next == sorted.end() || last < next->first) sorted.insert(next, {start, last});
}

symbol_engine* symbol_engine::load() {
  auto const library = LoadLibraryA("dbghelp.dll");
  if (!library) return nullptr;
  debug_help calls;
  auto const engine =
      bind_all(library, calls) ? new (std::nothrow) symbol_engine(library, calls) : nullptr;
  if (!engine) FreeLibrary(library);
  return engine;
}

symbol_engine::symbol_engine(HMODULE module, debug_help const& bound)
    : heaps{heap_of(L"msvcrt"), heap_of(L"ucrtbase")}, library(module), calls(bound) {
  calls.set_options(engine_options);
  calls.initialize(GetCurrentProcess(), nullptr, TRUE);
  snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, 0);
}

symbol_engine::~symbol_engine() {
  close_if_held(snapshot);
  calls.cleanup(GetCurrentProcess());
  FreeLibrary(library);
}

bool symbol_engine::ensure_module(std::uint64_t address) {
  if (known.meets(address)) return true;
  IMAGEHLP_MODULE64 module;
  bool const found = find_module(address, module) || find_new_module(address, module);
  if (found)
    known.insert(module.BaseOfImage, module.ImageSize);
  else if (finds_new_modules)
    known.insert(address, 8);
  return found;
}

bool symbol_engine::find_module(std::uint64_t address, IMAGEHLP_MODULE64& module) {
  module = {};
  module.SizeOfStruct = size_of_module_record;
  return calls.module_info(GetCurrentProcess(), address, &module);
}

bool symbol_engine::find_new_module(std::uint64_t address, IMAGEHLP_MODULE64& module) {
  if (!finds_new_modules || GetLastError() != ERROR_MOD_NOT_FOUND) return false;
  ++engine_changes;
  if (calls.refresh) {
    calls.refresh(GetCurrentProcess());
    if (find_module(address, module)) return true;
  }
  load_module_at(address);
  return find_module(address, module);
}

// For engines whose refresh finds nothing new.
void symbol_engine::load_module_at(std::uint64_t address) {
  MEMORY_BASIC_INFORMATION region;
  if (!calls.load_module ||
      !VirtualQuery(reinterpret_cast<void const*>(address), &region, sizeof region) ||
      region.Type != MEM_IMAGE)
    return;
  wchar_t path[1024];
  if (find_path(static_cast<HMODULE>(region.AllocationBase), path))
    calls.load_module(GetCurrentProcess(), nullptr, path, nullptr,
                      reinterpret_cast<std::uintptr_t>(region.AllocationBase), 0, nullptr, 0);
}

bool symbol_engine::find_symbol(std::uint64_t address, symbol_record& symbol) {
  symbol = {};
  symbol.head.SizeOfStruct = size_of_symbol_record;
  symbol.head.MaxNameLength = longest_symbol_name;
  return calls.symbol(GetCurrentProcess(), address, &symbol.displacement, &symbol.head);
}

bool symbol_engine::find_line(std::uint64_t address, IMAGEHLP_LINE64& line) {
  line = {};
  line.SizeOfStruct = size_of_line_record;
  DWORD displacement;
  return calls.line(GetCurrentProcess(), address, &displacement, &line);
}

bool symbol_engine::walk(DWORD machine, HANDLE thread, STACKFRAME64& frame, CONTEXT* context) {
  return calls.walk(machine, GetCurrentProcess(), thread, &frame, context, nullptr, nullptr,
                    nullptr, nullptr);
}

namespace {

std::atomic<long> hold_count = 0;
// Never destroyed: when the process ends with the engine held, threads may have
// been stopped with the heap's lock in their hands.
std::atomic<symbol_engine*> engine = nullptr;

}  // namespace

std::atomic<unsigned> engine_changes = 0;

symbol_engine* loaded_engine() noexcept { return engine; }

// Static objects may ask before those of this file are made.
TMutex& symbol_lock() {
  static TMutex lock;
  return lock;
}

namespace {

VELT_LOAD_STEP(symbol_lock_made) build_now const lock_made(symbol_lock);

}  // namespace

bool lock_symbols() {
  if (!owns_loader_lock()) {
    symbol_lock().Lock();
    return true;
  }
  constexpr ULONGLONG patience = 1000;  // milliseconds
  auto const end = GetTickCount64() + patience;
  for (auto now = end - patience; now < end; now = GetTickCount64())
    if (symbol_lock().Lock(static_cast<DWORD>(end - now))) return true;
  return false;
}

std::array<void*, 2> heaps_of_run_times() noexcept {
  auto const loaded = loaded_engine();
  return loaded ? loaded->heaps : symbol_engine::heap_list();
}

void forget_known_ranges() {
  if (auto const loaded = loaded_engine()) loaded->forget_known_ranges();
}

void* dump_writer() {
  auto const loaded = loaded_engine();
  return loaded ? reinterpret_cast<void*>(loaded->entries().write_dump) : nullptr;
}

}  // namespace velt::detail

using namespace velt::detail;

bool SymInitialize() {
  TLock const guard(symbol_lock());
  if (++hold_count != 1) return true;
  engine = symbol_engine::load();
  if (engine) return true;
  --hold_count;
  return false;
}

void SymCleanup() {
  TLock const guard(symbol_lock());
  if (--hold_count != 0 || !engine) return;
  delete engine.exchange(nullptr);
  ++engine_changes;
  forget_texts();
}

bool EnsureModuleSymbolsLoaded(unsigned __int64 address) {
  return try_asking_engine([=](symbol_engine& asked) { return asked.ensure_module(address); });
}
