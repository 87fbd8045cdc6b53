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

bool lock_environment() noexcept {
  if (entries.try_peb) return entries.try_peb();
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

process_locks::process_locks(when_taken policy) {
  take_symbols_and_loader(policy == when_taken::try_again);
  if (symbols && !take_rest(policy == when_taken::give_up)) {
    keep_only_symbol_lock();
    release_symbols();
  }
}

process_locks::~process_locks() {
  keep_only_symbol_lock();
  release_symbols();
}

void process_locks::keep_only_symbol_lock() noexcept {
  for (auto const heap : run_time_heaps)
    if (heap) HeapUnlock(heap);
  run_time_heaps = {};
  if (std::exchange(process_heap, false)) unlock_heap();
  if (std::exchange(environment, false) && entries.release_peb) entries.release_peb();
  loader.reset();
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

// False if `all` are required and one could not be taken.
bool process_locks::take_rest(bool all) {
  if (!loader->held() && all) return false;
  environment = lock_environment();
  if (!environment && all) return false;
  process_heap = lock_process_heap();
  if (!process_heap && all) return false;
  auto next = run_time_heaps.begin();
  for (auto const heap : heaps_of_run_times())
    if (heap && HeapLock(heap)) *next++ = heap;
  return true;
}

// A mutex that this thread owns can be released.
void process_locks::release_symbols() noexcept {
  if (std::exchange(symbols, false)) symbol_lock().Unlock();
}

}  // namespace velt::detail
