#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "velt/base/EntryInternal.h"
#include "velt/base/LoadOrderInternal.h"
#include "velt/diagnostics/ProcessLocksInternal.h"

namespace velt::detail {
namespace {

template <class Function>
class entry {
public:
  entry(HMODULE module, char const* name) noexcept
      : function(find_entry<Function>(module, name)) {}

  explicit operator bool() const noexcept { return function; }
  template <class... Arguments>
  auto operator()(Arguments... arguments) const noexcept {
    return function(arguments...);
  }

private:
  Function* function;
};

constexpr ULONG try_only = 2;
constexpr ULONG acquired = 1;

// The platform's entries, any of which may be missing.
struct lock_entries {
  HMODULE const module = GetModuleHandleW(L"ntdll");
  entry<void NTAPI()> const acquire_peb{module, "RtlAcquirePebLock"};
  entry<BOOLEAN NTAPI()> const try_peb{module, "RtlTryAcquirePebLock"};
  entry<void NTAPI()> const release_peb{module, "RtlReleasePebLock"};
  entry<LONG NTAPI(ULONG, ULONG*, ULONG_PTR*)> const lock_loader{module, "LdrLockLoaderLock"};
  entry<LONG NTAPI(ULONG, ULONG_PTR)> const unlock_loader{module, "LdrUnlockLoaderLock"};
  entry<BOOLEAN NTAPI(HANDLE)> const lock_heap{module, "RtlLockHeap"};
  entry<BOOLEAN NTAPI(HANDLE)> const unlock_heap{module, "RtlUnlockHeap"};
  // Looked up with the others; nothing calls it.
  entry<BOOLEAN NTAPI(HANDLE, ULONG, void const*)> const validate_heap{module, "RtlValidateHeap"};
};

VELT_LOAD_STEP(platform_locks) lock_entries const entries;
VELT_LOAD_STEP(process_heap_found) struct {
  HANDLE const handle = GetProcessHeap();
} const ProcessHeap;
VELT_LOAD_STEP(process_heap_found) struct {
  CRITICAL_SECTION* const pointer = FindHeapLockSection();
} const ProcessHeapSection;

bool lock_heap() noexcept { return entries.lock_heap && entries.lock_heap(ProcessHeap.handle); }
void unlock_heap() noexcept {
  if (entries.unlock_heap) entries.unlock_heap(ProcessHeap.handle);
}

// A word of 32 bits in memory that need not be aligned for it.
std::uint32_t word_at(std::byte const* address) noexcept {
  std::uint32_t word;
  std::memcpy(&word, address, sizeof word);
  return word;
}

// A guard page, which is not readable at first either, is left untouched: one of a
// stack must not lose its guard.
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

// Where a heap's header may hold the address, of which only addresses of 32 bits
// are known.
constexpr std::size_t first_offset = 96, last_offset = 540, step = 4;

CRITICAL_SECTION* search_header(std::byte const* heap) noexcept {
  for (std::size_t offset = first_offset; offset <= last_offset; offset += step) {
    auto const candidate = reinterpret_cast<std::byte*>(std::uintptr_t{word_at(heap + offset)});
    if (candidate && is_section_of_this_thread(candidate))
      return reinterpret_cast<CRITICAL_SECTION*>(candidate);
  }
  return nullptr;
}

}  // namespace

LoaderLockGuard::LoaderLockGuard() noexcept {
  if (!entries.lock_loader) return;
  ULONG state = 0;
  ULONG_PTR key = 0;
  holds = entries.lock_loader(try_only, &state, &key) == 0 && state == acquired;
  cookie = key;
}

LoaderLockGuard::~LoaderLockGuard() {
  if (holds && entries.unlock_loader) entries.unlock_loader(0, cookie);
}

PebLockGuard::PebLockGuard() noexcept {
  if (entries.try_peb) {
    holds = entries.try_peb();
  } else if (entries.acquire_peb) {
    entries.acquire_peb();
    holds = true;
  }
}

PebLockGuard::~PebLockGuard() {
  if (holds && entries.release_peb) entries.release_peb();
}

HeapLockGuard::HeapLockGuard() noexcept {
  if (!ProcessHeap.handle) return;
  auto const section = ProcessHeapSection.pointer;
  if (section && TryEnterCriticalSection(section)) {
    lock_heap();
    LeaveCriticalSection(section);
    holds = true;
  } else {
    holds = lock_heap();
  }
}

HeapLockGuard::~HeapLockGuard() {
  if (holds) unlock_heap();
}

CRITICAL_SECTION* FindHeapLockSection() noexcept {
  if (!ProcessHeap.handle || !lock_heap()) return nullptr;
  auto const section = search_header(static_cast<std::byte const*>(ProcessHeap.handle));
  unlock_heap();
  return section;
}

}  // namespace velt::detail
