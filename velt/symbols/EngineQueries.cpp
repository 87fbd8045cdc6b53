#include "velt/symbols/SymbolEngineInternal.h"

#include <psapi.h>

#include <algorithm>
#include <limits>
#include <utility>

namespace velt::detail {
namespace {

// Record sizes that old engines accept; newer headers declare longer records.
constexpr DWORD size_of_module_record = 1672;
constexpr DWORD size_of_line_record = 40;
constexpr DWORD size_of_symbol_record = 32;
constexpr ULONG longest_symbol_name = 1960;

// A record of the engine with the room for the name that follows it.
template <class Record>
union with_name {
  Record head;
  char bytes[sizeof(Record) + longest_symbol_name];
};

constexpr DWORD longest_path = 1024;

// Saturates, for ranges at the end of the address space.
std::uint64_t last_byte(std::uint64_t start, std::uint64_t size) {
  auto const last = start + (size - 1);
  return last >= start ? last : std::numeric_limits<std::uint64_t>::max();
}

// Path of the module at the base. With the pseudo handle of GetCurrentProcess() the
// platform would wait for the loader lock, which a thread suspended for a walk may own.
// With a real handle it reads the list of modules as that of a foreign process.
bool find_path(std::uint64_t base, wchar_t (&path)[longest_path]) {
  HANDLE const process =
      OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, GetCurrentProcessId());
  bool const found = process && K32GetModuleFileNameExW(process, reinterpret_cast<HMODULE>(base),
                                                        path, longest_path) != 0;
  if (process) CloseHandle(process);
  return found;
}

}  // namespace

std::vector<address_ranges::range>::const_iterator address_ranges::first_reaching(
    std::uint64_t address) const {
  return std::lower_bound(sorted.begin(), sorted.end(), address,
                          [](range const& each, std::uint64_t a) { return each.last < a; });
}

bool address_ranges::meets(std::uint64_t address) const {
  auto const found = first_reaching(address);
  return found != sorted.end() && last_byte(address, 8) >= found->first;
}

void address_ranges::insert(std::uint64_t start, std::uint64_t size) {
  if (size == 0) return;
  auto const last = last_byte(start, size);
  auto const next = first_reaching(start);
  if (next == sorted.end() || last < next->first) sorted.insert(next, {start, last});
}

void address_ranges::erase(std::uint64_t address) {
  auto const found = first_reaching(address);
  if (found != sorted.end() && found->first <= address) sorted.erase(found);
}

// An address in no module is remembered with its eight bytes, so that it is looked for
// only once. It is not remembered if the search was skipped, because threads are stopped
// or the loader lock is busy.
module_state symbol_engine::ensure_module(std::uint64_t address) {
  if (finds_new_modules) unloaded.take([this](std::uint64_t base) { forget_module(base); });
  if (known.meets(address)) return module_state::known;
  IMAGEHLP_MODULE64 record;
  auto const state =
      find_module(address, record) ? module_state::known : find_new_module(address, record);
  if (state == module_state::known)
    known.insert(record.BaseOfImage, record.ImageSize);
  else if (state == module_state::unknown && finds_new_modules)
    known.insert(address, 8);
  return state;
}

// Another module may be loaded at this base.
void symbol_engine::forget_module(std::uint64_t base) {
  if (calls.unload_module) calls.unload_module(GetCurrentProcess(), base);
  known.erase(base);
  tables.erase(base);
}

void symbol_engine::abandon() {
  unloaded.stop();
  known = {};
  tables.clear();
}

bool symbol_engine::find_module(std::uint64_t address, IMAGEHLP_MODULE64& record) {
  record = {};
  record.SizeOfStruct = size_of_module_record;
  return calls.module_info(GetCurrentProcess(), address, &record);
}

// The refresh waits for the loader lock, to list the modules. Therefore the lock is taken
// first, by an attempt that does not wait. New modules give new names to addresses.
module_state symbol_engine::find_new_module(std::uint64_t address, IMAGEHLP_MODULE64& record) {
  if (!finds_new_modules || GetLastError() != ERROR_MOD_NOT_FOUND) return module_state::unknown;
  loader_lock const loader;
  if (!loader.held()) return module_state::loader_is_busy;
  ++engine_changes;
  if (calls.refresh) {
    calls.refresh(GetCurrentProcess());
    if (find_module(address, record)) return module_state::known;
  }
  load_module_at(address);
  return find_module(address, record) ? module_state::known : module_state::unknown;
}

// For engines whose refresh reports success but finds nothing new, as Wine's does.
void symbol_engine::load_module_at(std::uint64_t address) {
  MEMORY_BASIC_INFORMATION region;
  if (!calls.load_module ||
      !VirtualQuery(reinterpret_cast<void const*>(address), &region, sizeof region) ||
      region.Type != MEM_IMAGE)
    return;
  auto const base = reinterpret_cast<std::uintptr_t>(region.AllocationBase);
  wchar_t path[longest_path];
  if (find_path(base, path))
    calls.load_module(GetCurrentProcess(), nullptr, path, nullptr, base, 0, nullptr, 0);
}

bool symbol_engine::find_symbol(std::uint64_t address, symbol_record& symbol) {
  bool is_public_only = true;
  bool const found = ask_for_symbol(address, symbol, is_public_only);
  if (!is_public_only) return true;
  auto place = find_in_file(address);
  if (!place) return found;
  symbol = {std::move(place->name), place->displacement};
  return true;
}

// SymFromAddr first: replacements of the engine that read more kinds of debug information
// may offer only that. Only its answer tells a function from a public symbol. The nearest
// public symbol, such as an export, may belong to another function.
bool symbol_engine::ask_for_symbol(std::uint64_t address, symbol_record& symbol,
                                   bool& is_public_only) {
  with_name<SYMBOL_INFO> answer{};
  answer.head.SizeOfStruct = sizeof answer.head;
  answer.head.MaxNameLen = longest_symbol_name;
  if (calls.symbol_info(GetCurrentProcess(), address, &symbol.displacement, &answer.head)) {
    constexpr ULONG tag_of_public_symbols = 10;
    is_public_only =
        answer.head.Tag == tag_of_public_symbols || (answer.head.Flags & SYMFLAG_EXPORT);
    symbol.name = answer.head.Name;
    return true;
  }
  return ask_for_symbol_in_old_form(address, symbol, is_public_only);
}

bool symbol_engine::ask_for_symbol_in_old_form(std::uint64_t address, symbol_record& symbol,
                                               bool& is_public_only) {
  with_name<IMAGEHLP_SYMBOL64> answer{};
  answer.head.SizeOfStruct = size_of_symbol_record;
  answer.head.MaxNameLength = longest_symbol_name;
  if (!calls.symbol(GetCurrentProcess(), address, &symbol.displacement, &answer.head)) return false;
  IMAGEHLP_MODULE64 record;
  is_public_only = (answer.head.Flags & SYMFLAG_EXPORT) ||
                   (find_module(address, record) && record.SymType == SymExport);
  symbol.name = answer.head.Name;
  return true;
}

// No file is opened while other threads are stopped.
std::optional<function_place> symbol_engine::find_in_file(std::uint64_t address) {
  IMAGEHLP_MODULE64 record;
  if (!find_module(address, record)) return {};
  auto table = tables.find(record.BaseOfImage);
  if (table == tables.end()) {
    wchar_t path[longest_path];
    if (!finds_new_modules || !find_path(record.BaseOfImage, path)) return {};
    table = tables.try_emplace(record.BaseOfImage, record.BaseOfImage, path).first;
  }
  return table->second.find(address);
}

bool symbol_engine::find_line(std::uint64_t address, IMAGEHLP_LINE64& line) {
  line = {};
  line.SizeOfStruct = size_of_line_record;
  DWORD displacement;
  return calls.line(GetCurrentProcess(), address, &displacement, &line);
}

// Some engines walk without call-backs, others need their own entries for them. A null
// call-back costs nothing, so these come first.
bool symbol_engine::begin_walk(HANDLE thread, STACKFRAME64& frame, CONTEXT& context) {
  auto const first_frame = frame;
  auto const first_context = context;
  if (walk(IMAGE_FILE_MACHINE_AMD64, thread, frame, &context)) return true;
  if (walks_with_call_backs || !calls.function_table || !calls.module_base) return false;
  frame = first_frame;
  context = first_context;
  walks_with_call_backs = true;
  walks_with_call_backs = walk(IMAGE_FILE_MACHINE_AMD64, thread, frame, &context);
  return walks_with_call_backs;
}

// The first step finds the frame where the walk begins. Each later step leaves a frame;
// if the engine has still not read the symbols of that frame's module, walks need none.
bool symbol_engine::walk(DWORD machine, HANDLE thread, STACKFRAME64& frame, CONTEXT* context) {
  bool const leaves_frame = frame.AddrReturn.Offset != 0;
  auto const left = frame.AddrPC.Offset;
  bool const with_call_backs = walks_with_call_backs && machine == IMAGE_FILE_MACHINE_AMD64;
  if (!calls.walk(machine, GetCurrentProcess(), thread, &frame, context, nullptr,
                  with_call_backs ? calls.function_table : nullptr,
                  with_call_backs ? calls.module_base : nullptr, nullptr))
    return false;
  IMAGEHLP_MODULE64 record;
  if (!needs_no_symbols && leaves_frame && find_module(left, record))
    needs_no_symbols = record.SymType == SymDeferred;
  return true;
}

}  // namespace velt::detail
