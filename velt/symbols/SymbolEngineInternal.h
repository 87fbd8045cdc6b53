// The platform's debug-help library while it is loaded, and the way to it: all
// of the library's contact with dbghelp goes through here.
#pragma once

#include <windows.h>

#include <dbghelp.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include "velt/locks/Mutex.h"
#include "velt/symbols/SymbolsInternal.h"

namespace velt::detail {

// The entry points of dbghelp.dll.
struct debug_help {
  BOOL(WINAPI* initialize)(HANDLE process, char const* path, BOOL invade);
  BOOL(WINAPI* cleanup)(HANDLE process);
  decltype(&SymGetLineFromAddr64) line;
  decltype(&SymGetModuleInfo64) module_info;
  decltype(&SymGetSymFromAddr64) symbol;
  decltype(&SymSetOptions) set_options;
  decltype(&SymGetTypeInfo) type_info;
  decltype(&SymSetContext) set_context;
  decltype(&SymEnumSymbols) enumerate;
  decltype(&SymFromAddr) symbol_info;
  BOOL(WINAPI* walk)
  (DWORD machine, HANDLE process, HANDLE thread, STACKFRAME64* frame, void* context,
   PREAD_PROCESS_MEMORY_ROUTINE64, PFUNCTION_TABLE_ACCESS_ROUTINE64, PGET_MODULE_BASE_ROUTINE64,
   PTRANSLATE_ADDRESS_ROUTINE64);
  decltype(&MiniDumpWriteDump) write_dump;
  // May be missing.
  decltype(&SymRefreshModuleList) refresh;
  decltype(&SymLoadModuleExW) load_module;
};

// Ranges of addresses that never overlap.
class address_ranges {
public:
  // Whether a range has one of the eight bytes from the address on.
  bool meets(std::uint64_t address) const;
  // Does nothing if the new range overlaps one that is there.
  void insert(std::uint64_t start, std::uint64_t size);

private:
  struct range {
    std::uint64_t first, last;
  };
  std::vector<range>::const_iterator first_reaching(std::uint64_t address) const;

  std::vector<range> sorted;
};

struct symbol_record {
  std::uint64_t displacement = 0;
  union {
    char bytes[2048];  // the name ends somewhere in it
    IMAGEHLP_SYMBOL64 head;
  };
};

// All but load() is for holders of symbol_lock().
class symbol_engine {
public:
  // Null if the library or an entry is missing.
  static symbol_engine* load();
  symbol_engine(symbol_engine const&) = delete;
  symbol_engine& operator=(symbol_engine const&) = delete;
  ~symbol_engine();

  // See EnsureModuleSymbolsLoaded.
  bool ensure_module(std::uint64_t address);
  bool find_module(std::uint64_t address, IMAGEHLP_MODULE64& module);
  bool find_symbol(std::uint64_t address, symbol_record& symbol);
  // What `line` points to is the engine's.
  bool find_line(std::uint64_t address, IMAGEHLP_LINE64& line);
  bool walk(DWORD machine, HANDLE thread, STACKFRAME64& frame, CONTEXT* context);

  void forget_known_ranges() { known = {}; }

  debug_help const& entries() const { return calls; }

  // Of the run times that may be the engine's and this library's; null for one
  // that is not there or uses the heap of the process.
  using heap_list = std::array<HANDLE, 2>;
  heap_list const heaps;
  bool finds_new_modules = true;

private:
  symbol_engine(HMODULE module, debug_help const& bound);
  bool find_new_module(std::uint64_t address, IMAGEHLP_MODULE64& module);
  void load_module_at(std::uint64_t address);

  HMODULE const library;
  debug_help const calls;
  HANDLE snapshot;
  address_ranges known;
};

// Null if it is not loaded. Only a holder of symbol_lock() may use what it
// points to.
symbol_engine* loaded_engine() noexcept;

// Grows whenever addresses may have got other names than before.
extern std::atomic<unsigned> engine_changes;

// For holders of symbol_lock(); false if the engine is not loaded.
template <class Query>
bool ask_own_engine(Query query) {
  auto const engine = loaded_engine();
  return engine && query(*engine);
}

// Waits for symbol_lock() and holds it for the query.
template <class Query>
bool ask_engine(Query query) {
  TLock const guard(symbol_lock());
  return ask_own_engine(query);
}

// False also if the lock is not to be had within 20 seconds.
template <class Query>
bool try_asking_engine(Query query) noexcept {
  try {
    if (!loaded_engine()) return false;
    TLock const guard(symbol_lock(), 20'000);
    return ask_own_engine(query);
  } catch (...) {
    return false;
  }
}

}  // namespace velt::detail
