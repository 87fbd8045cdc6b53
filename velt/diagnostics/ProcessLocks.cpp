#include "velt/diagnostics/ProcessLocksInternal.h"

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "velt/base/EntryInternal.h"
#include "velt/base/LoadOrderInternal.h"
#include "velt/locks/Mutex.h"
#include "velt/symbols/SymbolsInternal.h"

namespace velt::detail {
namespace {

using plain_function = void NTAPI();
using trying_function = BOOLEAN NTAPI();
using heap_function = BOOLEAN NTAPI(HANDLE);
using validating_function = BOOLEAN NTAPI(HANDLE, ULONG, void const*);

// The platform's entries, any of which may be missing.
struct lock_entries {
  HMODULE const module = GetModuleHandleW(L"ntdll");
  plain_function* const acquire_peb = find_entry<plain_function>(module, "RtlAcquirePebLock");
  trying_function* const try_peb = find_entry<trying_function>(module, "RtlTryAcquirePebLock");
  plain_function* const release_peb = find_entry<plain_function>(module, "RtlReleasePebLock");
  heap_function* const lock_heap = find_entry<heap_function>(module, "RtlLockHeap");
  heap_function* const unlock_heap = find_entry<heap_function>(module, "RtlUnlockHeap");
  // Looked up with the others; nothing calls it.
  validating_function* const validate = find_entry<validating_function>(module, "RtlValidateHeap");
};

VELT_LOAD_STEP(platform_locks) lock_entries const entries;

CRITICAL_SECTION* find_heap_section() noexcept;

// The platform's lock of its search path. A thread that looks for a library holds it while
// it reads the environment and allocates. No call takes it alone; Wine's name of it is
// among the data of the module. Null elsewhere.
CRITICAL_SECTION* find_search_path_section() noexcept {
  constexpr std::size_t offset_of_name = sizeof(RTL_CRITICAL_SECTION_DEBUG) - sizeof(char const*);
  auto const base = reinterpret_cast<std::byte*>(entries.module);
  auto const headers = reinterpret_cast<IMAGE_NT_HEADERS const*>(
      base + reinterpret_cast<IMAGE_DOS_HEADER const*>(base)->e_lfanew);
  auto const image_end = base + headers->OptionalHeader.SizeOfImage;
  auto const first = IMAGE_FIRST_SECTION(headers);
  for (auto part = first; part != first + headers->FileHeader.NumberOfSections; ++part) {
    if (!(part->Characteristics & IMAGE_SCN_MEM_WRITE)) continue;
    auto const begin = base + part->VirtualAddress, end = begin + part->Misc.VirtualSize;
    for (auto at = begin; end - at >= std::ptrdiff_t{sizeof(CRITICAL_SECTION)}; at += sizeof at) {
      auto const section = reinterpret_cast<CRITICAL_SECTION*>(at);
      auto const debug = reinterpret_cast<std::byte*>(section->DebugInfo);
      if (debug < begin || end - debug < std::ptrdiff_t{sizeof *section->DebugInfo} ||
          section->DebugInfo->CriticalSection != section)
        continue;
      char const* name;
      std::memcpy(&name, debug + offset_of_name, sizeof name);
      auto const text = reinterpret_cast<std::byte const*>(name);
      if (text >= base && text < image_end && std::strstr(name, "dlldir_section")) return section;
    }
  }
  return nullptr;
}

VELT_LOAD_STEP(platform_locks) struct {
  CRITICAL_SECTION* const pointer = find_search_path_section();
} const search_path_section;

bool lock_search_path(when_busy policy) noexcept {
  if (!search_path_section.pointer || policy == when_busy::give_up) return false;
  EnterCriticalSection(search_path_section.pointer);
  return true;
}

VELT_LOAD_STEP(process_heap_found) struct {
  HANDLE const handle = GetProcessHeap();
} const heap_of_process;
VELT_LOAD_STEP(process_heap_found) struct {
  CRITICAL_SECTION* const pointer = find_heap_section();
} const heap_section;

bool lock_heap() noexcept { return entries.lock_heap && entries.lock_heap(heap_of_process.handle); }
void unlock_heap() noexcept {
  if (entries.unlock_heap) entries.unlock_heap(heap_of_process.handle);
}

// A word of 32 bits in memory that need not be aligned for it.
std::uint32_t word_at(std::byte const* address) noexcept {
  std::uint32_t word;
  std::memcpy(&word, address, sizeof word);
  return word;
}

// Does not touch a guard page: the first access would remove the guard, which a
// stack needs.
bool is_writable(std::byte const* address, std::size_t size) noexcept {
  MEMORY_BASIC_INFORMATION region;
  if (VirtualQuery(address, &region, sizeof region) != sizeof region) return false;
  auto const end = static_cast<std::byte const*>(region.BaseAddress) + region.RegionSize;
  return region.State == MEM_COMMIT && (region.Protect & PAGE_READWRITE) &&
         !(region.Protect & PAGE_GUARD) && end - address >= static_cast<std::ptrdiff_t>(size);
}

bool is_section_of_this_thread(std::byte const* candidate) noexcept {
  return is_writable(candidate, sizeof(CRITICAL_SECTION)) &&
         !IsBadReadPtr(candidate, sizeof(CRITICAL_SECTION)) &&
         word_at(candidate + offsetof(CRITICAL_SECTION, OwningThread)) == GetCurrentThreadId();
}

// The offsets in a heap's header that may hold the section's address. Only 32-bit
// addresses are searched for.
constexpr std::size_t first_offset = 96, last_offset = 540, step = 4;

CRITICAL_SECTION* search_header(std::byte const* heap) noexcept {
  for (std::size_t offset = first_offset; offset <= last_offset; offset += step) {
    auto const candidate = reinterpret_cast<std::byte*>(std::uintptr_t{word_at(heap + offset)});
    if (candidate && is_section_of_this_thread(candidate))
      return reinterpret_cast<CRITICAL_SECTION*>(candidate);
  }
  return nullptr;
}

// The critical section that guards the process heap. The platform does not publish
// it, so the search looks for a section that this thread owns while it holds the
// heap's lock. Null if there is none.
CRITICAL_SECTION* find_heap_section() noexcept {
  if (!heap_of_process.handle || !lock_heap()) return nullptr;
  auto const section = search_header(static_cast<std::byte const*>(heap_of_process.handle));
  unlock_heap();
  return section;
}

bool lock_environment(when_busy policy) noexcept {
  if (entries.try_peb && policy == when_busy::give_up) return entries.try_peb();
  if (!entries.acquire_peb) return false;
  entries.acquire_peb();
  return true;
}

// Tries the section first, if it is known. If another thread owns it, waits for the
// heap's lock.
bool lock_process_heap() noexcept {
  if (!heap_of_process.handle) return false;
  auto const section = heap_section.pointer;
  if (!section || !TryEnterCriticalSection(section)) return lock_heap();
  lock_heap();
  LeaveCriticalSection(section);
  return true;
}

}  // namespace

data_locks::data_locks(when_busy policy, std::array<void*, 2> const& run_times) noexcept
    : search_path(lock_search_path(policy)),
      environment(lock_environment(policy)),
      process_heap(lock_process_heap()) {
  auto next = run_time_heaps.begin();
  for (auto const heap : run_times)
    if (heap && HeapLock(heap)) *next++ = heap;
}

data_locks::~data_locks() {
  for (auto const heap : run_time_heaps)
    if (heap) HeapUnlock(heap);
  if (process_heap) unlock_heap();
  if (environment && entries.release_peb) entries.release_peb();
  if (search_path) LeaveCriticalSection(search_path_section.pointer);
}

process_locks::process_locks(when_taken policy) {
  take_symbols_and_loader(policy == when_taken::try_again);
  if (symbols) rest.emplace(when_busy::give_up, heaps_of_run_times());
}

process_locks::~process_locks() {
  rest.reset();
  loader.reset();
  release_symbols();
}

// Threads that begin and end take the loader lock for a moment.
void process_locks::take_symbols_and_loader(bool with_patience) {
  for (loader_patience patience;; patience.pause()) {
    symbols = lock_symbols();
    if (!symbols) return;
    loader.emplace();
    if (loader->held() || !with_patience || patience.is_over()) return;
    release_symbols();
  }
}

// A mutex that this thread owns can be released.
void process_locks::release_symbols() noexcept {
  if (std::exchange(symbols, false)) symbol_lock().Unlock();
}

}  // namespace velt::detail
