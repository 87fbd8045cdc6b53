#include "velt/symbols/SymbolEngineInternal.h"

#include <windows.h>

#include <psapi.h>

#include <algorithm>

namespace velt::detail {
namespace {

constexpr std::size_t most_modules = 1024;

// With a real handle of the process, the platform reads the list without the loader lock,
// which a hanging thread may own.
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

bool engine_walks_without_symbols() {
  return ask_engine([](symbol_engine& engine) { return engine.walks_without_symbols(); });
}

void load_all_symbols() {
  symbol_record symbol;
  for (auto const module : all_modules()) {
    auto const base = reinterpret_cast<std::uintptr_t>(module);
    ask_engine_at(base,
                  [&](symbol_engine& engine, bool) { return engine.find_symbol(base, symbol); });
  }
}

}  // namespace

// The walk shows whether walks need symbols.
[[gnu::noipa]] short_stack prepare_walks() {
  short_stack own(nullptr, GetCurrentThread(), 1);
  if (!engine_walks_without_symbols()) load_all_symbols();
  return own;
}

std::atomic<unsigned long> isolating_thread = 0;

engine_isolation::engine_isolation() noexcept {
  set_finding(false);
  isolating_thread = GetCurrentThreadId();
}

engine_isolation::~engine_isolation() {
  isolating_thread = 0;
  set_finding(true);
}

}  // namespace velt::detail
