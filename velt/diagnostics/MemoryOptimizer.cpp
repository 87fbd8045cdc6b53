#include "velt/diagnostics/MemoryOptimizer.h"

#include <windows.h>

#include <malloc.h>

#include <initializer_list>

#include "velt/base/EntryInternal.h"
#include "velt/base/LoadOrderInternal.h"

using velt::detail::find_entry;

namespace {

HANDLE heap_of_run_time() noexcept { return reinterpret_cast<HANDLE>(_get_heap_handle()); }

void use_low_fragmentation_heaps() {
  auto const set =
      find_entry<decltype(HeapSetInformation)>(L"kernel32.dll", "HeapSetInformation");
  if (!set) return;
  ULONG low_fragmentation = 2;
  for (HANDLE const heap : {GetProcessHeap(), heap_of_run_time()})
    set(heap, HeapCompatibilityInformation, &low_fragmentation, sizeof low_fragmentation);
}

void turn_off_small_block_heap() {
  using set_threshold = int __cdecl(std::size_t);
  if (auto const set = find_entry<set_threshold>(L"msvcrt", "_set_sbh_threshold")) set(0);
}

VELT_LOAD_STEP(heaps_tuned) MemoryOptimizer const optimizer;

}  // namespace

bool MemoryOptimizer::IsActualVersion() {
  OSVERSIONINFOW system{};
  system.dwOSVersionInfoSize = sizeof system;
  if (!GetVersionExW(&system) || system.dwPlatformId != VER_PLATFORM_WIN32_NT) return false;
  return system.dwMajorVersion > 5 || (system.dwMajorVersion == 5 && system.dwMinorVersion != 0);
}

MemoryOptimizer::MemoryOptimizer() {
  if (IsActualVersion()) use_low_fragmentation_heaps();
  turn_off_small_block_heap();
}
