#include "velt/symbols/LoaderLockInternal.h"

#include <windows.h>

#include <atomic>
#include <cstddef>

#include "velt/base/EntryInternal.h"
#include "velt/base/LoadOrderInternal.h"

namespace velt::detail {
namespace {

constexpr ULONG try_only = 2;
constexpr ULONG acquired = 1;

using lock_function = LONG NTAPI(ULONG flags, ULONG* state, ULONG_PTR* cookie);
using unlock_function = LONG NTAPI(ULONG flags, ULONG_PTR cookie);

// Null if missing.
VELT_LOAD_STEP(platform_locks) struct {
  lock_function* const lock = find_entry<lock_function>(L"ntdll", "LdrLockLoaderLock");
  unlock_function* const unlock = find_entry<unlock_function>(L"ntdll", "LdrUnlockLoaderLock");
} const entries;

bool owns(CRITICAL_SECTION const* section) noexcept {
  return section && section->OwningThread == ULongToHandle(GetCurrentThreadId());
}

// The process environment block points to the critical section of the loader lock, at an
// offset that no header publishes. Static objects of a library are built under the loader
// lock, so the section is the right one if this thread owns it.
CRITICAL_SECTION* find_section() noexcept {
  constexpr std::size_t offset_of_section = 0x110;
  std::byte* block;
  asm("mov %%gs:0x60, %0" : "=r"(block));
  auto const section = *reinterpret_cast<CRITICAL_SECTION**>(block + offset_of_section);
  return owns(section) ? section : nullptr;
}

VELT_LOAD_STEP(platform_locks) struct {
  CRITICAL_SECTION* const pointer = find_section();
} const section;

std::atomic<bool> tried_in_vain = false;

}  // namespace

loader_lock::loader_lock(when_busy policy) noexcept {
  if (!entries.lock) return;
  ULONG state = 0;
  ULONG_PTR key = 0;
  auto const flags = policy == when_busy::wait ? 0 : try_only;
  holds = entries.lock(flags, &state, &key) == 0 && state == acquired;
  cookie = key;
  if (holds) tried_in_vain = false;
}

loader_lock::~loader_lock() {
  if (holds && entries.unlock) entries.unlock(0, cookie);
}

loader_patience::loader_patience() noexcept : end(GetTickCount64() + 1000) {}

bool loader_patience::is_over() noexcept {
  if (GetTickCount64() >= end) tried_in_vain = true;
  return tried_in_vain;
}

void loader_patience::pause() const noexcept { Sleep(1); }

bool owns_loader_lock() noexcept { return owns(section.pointer); }

}  // namespace velt::detail
