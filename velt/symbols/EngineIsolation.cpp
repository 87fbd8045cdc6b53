#include "velt/symbols/EngineIsolationInternal.h"

#include <windows.h>

#include <psapi.h>

#include <algorithm>

#include "velt/symbols/SymbolEngineInternal.h"

namespace velt::detail {
namespace {

constexpr std::size_t most_modules = 1024;

// Through a real handle of the process, the list is read without the loader's
// lock, which a thread that hangs may have.
std::vector<HMODULE> all_modules() {
  THandle process;
  process.AttachHandle(
      OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, GetCurrentProcessId()));
  std::vector<HMODULE> modules(most_modules);
  constexpr DWORD room = most_modules * sizeof(HMODULE);
  DWORD needed = 0;
  K32EnumProcessModules(process, modules.data(), room, &needed);
  modules.resize(std::min(room, needed) / sizeof(HMODULE));
  return modules;
}

void set_finding(bool finds) noexcept {
  if (auto const engine = loaded_engine()) engine->finds_new_modules = finds;
}

}  // namespace

void load_all_symbols() {
  auto const engine = loaded_engine();
  if (!engine) return;
  symbol_record symbol;
  for (auto const module : all_modules()) {
    auto const base = reinterpret_cast<std::uintptr_t>(module);
    engine->ensure_module(base);
    engine->find_symbol(base, symbol);
  }
}

engine_isolation::engine_isolation() noexcept { set_finding(false); }
engine_isolation::~engine_isolation() { set_finding(true); }

}  // namespace velt::detail
