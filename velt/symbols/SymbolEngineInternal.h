// Access to the platform's debug-help library, dbghelp. Every call into it goes through
// the classes of this file. The file also declares what the sources of this folder
// share: the isolation of the engine, the cache of texts and the text of variables.
#pragma once

#include <windows.h>

#include <dbghelp.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "velt/locks/Mutex.h"
#include "velt/symbols/CoffNamesInternal.h"
#include "velt/symbols/LoaderLockInternal.h"
#include "velt/symbols/SymbolsInternal.h"
#include "velt/symbols/UnloadedModulesInternal.h"

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
  // Null if missing.
  decltype(&SymRefreshModuleList) refresh;
  decltype(&SymLoadModuleExW) load_module;
  decltype(&SymUnloadModule64) unload_module;
  PFUNCTION_TABLE_ACCESS_ROUTINE64 function_table;
  PGET_MODULE_BASE_ROUTINE64 module_base;
};

// Ranges of addresses that never overlap.
class address_ranges {
public:
  // Whether a range contains one of the eight bytes that begin at the address.
  bool meets(std::uint64_t address) const;
  // Does nothing if the new range overlaps an existing one.
  void insert(std::uint64_t start, std::uint64_t size);
  // Removes the range that contains the address, if there is one.
  void erase(std::uint64_t address);

private:
  struct range {
    std::uint64_t first, last;
  };
  std::vector<range>::const_iterator first_reaching(std::uint64_t address) const;

  std::vector<range> sorted;
};

struct symbol_record {
  std::string name;
  std::uint64_t displacement = 0;
};

// A reference to dbghelp.dll. load() and the destructor wait for the loader lock, so a
// holder of symbol_lock() must not call them.
class engine_library {
public:
  // Null if the library or an entry is missing.
  static std::unique_ptr<engine_library> load();
  engine_library(engine_library const&) = delete;
  engine_library& operator=(engine_library const&) = delete;
  ~engine_library() { FreeLibrary(module); }

  debug_help const& entries() const { return calls; }

  // The heaps of the C run times that the engine or this library may use; null for a run
  // time that is not loaded or uses the process heap.
  std::array<void*, 2> const heaps;

private:
  engine_library(HMODULE library, debug_help const& bound);

  HMODULE const module;
  debug_help const calls;
};

enum class module_state { known, unknown, loader_is_busy };

// The engine in dbghelp, started for this process. For holders of symbol_lock().
class symbol_engine {
public:
  // Constructor and destructor start and end the engine, which takes the loader lock; the
  // caller holds it already.
  explicit symbol_engine(std::unique_ptr<engine_library> loaded);
  symbol_engine(symbol_engine const&) = delete;
  symbol_engine& operator=(symbol_engine const&) = delete;
  ~symbol_engine();

  // See EnsureModuleSymbolsLoaded. Looks for an unknown module under the loader lock, if
  // that is free.
  module_state ensure_module(std::uint64_t address);
  bool find_module(std::uint64_t address, IMAGEHLP_MODULE64& record);
  // From the debug information, or else from the symbol table of the module's file, or
  // else from the module's exports.
  bool find_symbol(std::uint64_t address, symbol_record& symbol);
  // The engine owns the texts that `line` points to.
  bool find_line(std::uint64_t address, IMAGEHLP_LINE64& line);
  // The first step of a walk, in the 64-bit form.
  bool begin_walk(HANDLE thread, STACKFRAME64& frame, CONTEXT& context);
  bool walk(DWORD machine, HANDLE thread, STACKFRAME64& frame, CONTEXT* context);

  // Whether a walk has led through a module without reading its symbols.
  bool walks_without_symbols() const { return needs_no_symbols; }
  // For the unloading of the library: the engine calls no code of it from then on.
  void abandon();
  debug_help const& entries() const { return calls; }

  std::unique_ptr<engine_library> library;
  bool finds_new_modules = true;

private:
  void forget_module(std::uint64_t base);
  module_state find_new_module(std::uint64_t address, IMAGEHLP_MODULE64& record);
  void load_module_at(std::uint64_t address);
  bool ask_for_symbol(std::uint64_t address, symbol_record& symbol, bool& is_public_only);
  bool ask_for_symbol_in_old_form(std::uint64_t address, symbol_record& symbol,
                                  bool& is_public_only);
  std::optional<function_place> find_in_file(std::uint64_t address);

  debug_help const calls;
  unloaded_modules unloaded;
  HANDLE snapshot;
  address_ranges known;
  std::map<std::uint64_t, coff_names> tables;  // by the module's base
  bool needs_no_symbols = false;
  bool walks_with_call_backs = false;
};

// Null if the engine is not loaded. Only a holder of symbol_lock() may dereference the
// pointer.
symbol_engine* loaded_engine() noexcept;

// Grows whenever the names of addresses may have changed.
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

// Like ask_engine(), after ensure_module() for the address; the query learns whether the
// module is known. Gives symbol_lock() back while the loader lock is busy.
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

// Like ask_engine(), with a wait of 20 seconds at most; false after that, and if anything
// throws.
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

// Use of the engine while threads are stopped.

// Makes the engine read now what it would otherwise read in the middle of a walk, and find
// the modules of the caller's stack, which it returns, from the calling function on. If its
// walks need symbols, it reads those of all modules, which takes long. Call this before
// stopping threads or locking heaps.
short_stack prepare_walks();

// The thread that has an engine_isolation; 0 if none has.
extern std::atomic<unsigned long> isolating_thread;

// While it lives, the engine does not look for unknown modules, and does not remember the
// addresses that were asked for in vain. For holders of symbol_lock(), one at a time.
class [[nodiscard]] engine_isolation {
public:
  engine_isolation() noexcept;
  engine_isolation(engine_isolation const&) = delete;
  engine_isolation& operator=(engine_isolation const&) = delete;
  ~engine_isolation();
};

// The cache of the full names that were asked for since the engine was loaded: a process
// that reports often reports the same frames again and again. No operation waits for
// another thread, because that may have been suspended inside the cache. If another
// thread is inside, a look-up finds nothing and a change is skipped.

// Empty if the text is not in the cache.
std::string known_text(unsigned __int64 address);

// `changes` is the value that engine_changes had before the text was made.
void remember_text(unsigned __int64 address, std::string const& text, unsigned changes) noexcept;

void forget_texts();

// The text of a function's variables, as the engine lists them: the address that their
// offsets count from, and the text so far. For holders of symbol_lock().
extern std::uint64_t variable_frame_base;
extern std::string variable_text;

// The engine's callback, called for each symbol. For a variable of four bytes it appends
// a line with the type, the name and the value, hexadecimal and decimal.
BOOL CALLBACK append_variable(SYMBOL_INFO* symbol, ULONG size, void* unused);

}  // namespace velt::detail
