// The platform's debug-help library while it is loaded, and the way to it: all
// of the library's contact with dbghelp goes through here.
#pragma once

#include <windows.h>

#include <dbghelp.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "velt/locks/Mutex.h"
#include "velt/symbols/LoaderLockInternal.h"
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

// dbghelp.dll. To load and to free it waits for the loader lock: neither is for
// holders of symbol_lock().
class engine_library {
public:
  // Null if the library or an entry is missing.
  static std::unique_ptr<engine_library> load();
  engine_library(engine_library const&) = delete;
  engine_library& operator=(engine_library const&) = delete;
  ~engine_library() { FreeLibrary(module); }

  debug_help const& entries() const { return calls; }

  // Of the run times that may be the engine's and this library's; null for one
  // that is not there or uses the heap of the process.
  std::array<void*, 2> const heaps;

private:
  engine_library(HMODULE library, debug_help const& bound);

  HMODULE const module;
  debug_help const calls;
};

enum class module_state { known, unknown, loader_is_busy };

// The engine of the library, started for this process. For holders of symbol_lock().
class symbol_engine {
public:
  // To start the engine and to end it takes the loader lock, which the caller holds.
  explicit symbol_engine(std::unique_ptr<engine_library> loaded);
  symbol_engine(symbol_engine const&) = delete;
  symbol_engine& operator=(symbol_engine const&) = delete;
  ~symbol_engine();

  // See EnsureModuleSymbolsLoaded. A module that the engine does not know is looked
  // for under the loader lock, if that is free.
  module_state ensure_module(std::uint64_t address);
  bool find_module(std::uint64_t address, IMAGEHLP_MODULE64& record);
  bool find_symbol(std::uint64_t address, symbol_record& symbol);
  // What `line` points to is the engine's.
  bool find_line(std::uint64_t address, IMAGEHLP_LINE64& line);
  bool walk(DWORD machine, HANDLE thread, STACKFRAME64& frame, CONTEXT* context);

  // Whether a walk has led through a module without reading its symbols.
  bool walks_without_symbols() const { return needs_no_symbols; }
  void forget_known_ranges() { known = {}; }
  debug_help const& entries() const { return calls; }

  std::unique_ptr<engine_library> library;
  bool finds_new_modules = true;

private:
  module_state find_new_module(std::uint64_t address, IMAGEHLP_MODULE64& record);
  void load_module_at(std::uint64_t address);

  debug_help const calls;
  HANDLE snapshot;
  address_ranges known;
  bool needs_no_symbols = false;
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
  symbol_hold const hold;
  return hold && ask_own_engine(query);
}

// The same after ensure_module() for the address; the query is told whether its
// module is known. While the loader lock is busy symbol_lock() is given back.
template <class Query>
bool ask_engine_at(std::uint64_t address, Query query) {
  for (loader_patience patience;; patience.pause()) {
    symbol_hold const hold;
    auto const engine = hold ? loaded_engine() : nullptr;
    if (!engine) return false;
    auto const state = engine->ensure_module(address);
    if (state != module_state::loader_is_busy || patience.is_over())
      return query(*engine, state == module_state::known);
  }
}

// False also if the lock is unavailable for 20 seconds.
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

// While threads are stopped.

// Makes the engine read all that it would otherwise read in the middle of a walk:
// where its walks need symbols, those of all modules, which takes long. Before
// threads are stopped or heaps are locked.
void prepare_walks();

// While it lives the engine neither looks for modules that it does not know nor
// remembers that they were asked for. For holders of symbol_lock().
class [[nodiscard]] engine_isolation {
public:
  engine_isolation() noexcept;
  engine_isolation(engine_isolation const&) = delete;
  engine_isolation& operator=(engine_isolation const&) = delete;
  ~engine_isolation();
};

// The full names of addresses that were asked for since the engine was loaded. A
// process that reports much reports the same frames again and again. No operation
// waits for another thread, which may be suspended in the middle of one so that its
// stack can be walked; a thread that does not get in goes without.

// Empty if it is not known.
std::string known_text(unsigned __int64 address);

// `changes` is what engine_changes was when the making of the text began.
void remember_text(unsigned __int64 address, std::string const& text, unsigned changes) noexcept;

void forget_texts();

// Text of the variables of a function, as the engine lists them. For holders of
// symbol_lock(): where the variables lie, and what was written of them.
extern std::uint64_t variable_frame_base;
extern std::string variable_text;

// In the form that the engine calls for each symbol. Adds a line for one of four
// bytes: type, name and value in both notations.
BOOL CALLBACK append_variable(SYMBOL_INFO* symbol, ULONG size, void* unused);

}  // namespace velt::detail
