#include "velt/symbols/UnloadedModulesInternal.h"

#include <windows.h>
#include <winternl.h>

#include <utility>

#include "velt/base/EntryInternal.h"
#include "velt/symbols/SymbolEngineInternal.h"

namespace velt::detail {

// No header declares what the platform reports.
struct unloaded_modules::notice {
  ULONG flags;
  UNICODE_STRING const *path, *name;
  void* base;
  ULONG size;
};

unloaded_modules::unloaded_modules() noexcept {
  using register_function = LONG NTAPI(ULONG flags, decltype(&note), void* self, void** cookie);
  auto const begin = find_entry<register_function>(L"ntdll", "LdrRegisterDllNotification");
  if (!begin || begin(0, note, this, &registration) != 0) registration = nullptr;
}

void unloaded_modules::stop() noexcept {
  auto const end = find_entry<LONG NTAPI(void* cookie)>(L"ntdll", "LdrUnregisterDllNotification");
  if (auto const ended = std::exchange(registration, nullptr); ended && end) end(ended);
}

// Called with the loader lock. Other threads may be stopped with any lock in their hands,
// so it takes none and calls no other module.
void unloaded_modules::note(unsigned long reason, notice const* module, void* self) noexcept {
  constexpr unsigned long unloaded = 2;
  if (reason == unloaded)
    static_cast<unloaded_modules*>(self)->add(reinterpret_cast<std::uintptr_t>(module->base));
}

// First the place, then the mark, then the change of names: a thread that sees the later
// one finds the earlier one.
void unloaded_modules::add(std::uint64_t base) noexcept {
  for (auto& place : bases) {
    std::uint64_t expected = 0;
    if (place.compare_exchange_strong(expected, base) || expected == base) break;
  }
  any = true;
  ++engine_changes;
}

}  // namespace velt::detail
