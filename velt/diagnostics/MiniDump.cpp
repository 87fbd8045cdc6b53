#include "velt/diagnostics/MiniDump.h"

#include <windows.h>

#include <dbghelp.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "velt/base/LoadOrderInternal.h"
#include "velt/diagnostics/ProcessLocksInternal.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/faults/ThrownObjectInternal.h"
#include "velt/symbols/SymbolsInternal.h"

namespace {

using namespace velt::detail;

enum class outcome { written, failed, given_up };

outcome write_file(HANDLE file, _EXCEPTION_POINTERS* pointers, unsigned long type,
                   unsigned long thread_id) {
  auto const write = reinterpret_cast<decltype(&MiniDumpWriteDump)>(dump_writer());
  if (!write) return outcome::failed;
  MINIDUMP_EXCEPTION_INFORMATION exception{thread_id, pointers, TRUE};
  bool const written =
      write(GetCurrentProcess(), GetCurrentProcessId(), file, static_cast<MINIDUMP_TYPE>(type),
            pointers ? &exception : nullptr, nullptr, nullptr);
  return written ? outcome::written : outcome::failed;
}

// The writer stops all other threads and takes these locks too.
outcome write_under_locks(HANDLE file, _EXCEPTION_POINTERS* pointers, unsigned long type,
                          unsigned long thread_id) {
  process_locks const locks(when_taken::give_up);
  return locks.held() ? write_file(file, pointers, type, thread_id) : outcome::given_up;
}

// What a thrower knows better than the stack.
std::string module_of_thrower(_EXCEPTION_POINTERS* pointers) {
  auto const exception = static_cast<EGeneric*>(ThrownObjectAs(pointers, typeid(EGeneric)));
  if (!exception) return {};
  auto const module = exception->get_value("ModuleName");
  return module.size() != 0 ? module.get<std::string>() : std::string();
}

std::string module_to_blame(_CONTEXT* context) {
  return SymGetModuleFromAddress(short_stack(context, GetCurrentThread()).address_to_blame());
}

std::string find_program_name() {
  char path[MAX_PATH];
  std::string name(path, GetModuleFileNameA(nullptr, path, sizeof path));
  name.erase(0, name.rfind('\\') + 1);
  return name.substr(0, name.rfind('.'));
}

// Found at load: to ask for it can wait for the loader lock.
VELT_LOAD_STEP(program_name_found) std::string const program_name = find_program_name();

std::string module_name(_EXCEPTION_POINTERS* pointers, bool with_symbols) {
  std::string module;
  if (pointers) {
    module = module_of_thrower(pointers);
    if (module.empty() && pointers->ContextRecord && with_symbols)
      module = module_to_blame(pointers->ContextRecord);
  }
  return module.empty() ? program_name : module;
}

std::string code_of(EXCEPTION_RECORD const& record) {
  char digits[sizeof "C0000005"];
  return std::string(digits, std::sprintf(digits, "%lX", record.ExceptionCode));
}

std::string kind_of_throw(_EXCEPTION_POINTERS* pointers) {
  auto const type = ThrownTypeName(pointers);
  return type.empty() ? "C++" : type;
}

std::string kind_name(_EXCEPTION_POINTERS* pointers) {
  if (!pointers || !pointers->ExceptionRecord) return "Dump";
  auto kind =
      is_typed_throw(pointers) ? kind_of_throw(pointers) : code_of(*pointers->ExceptionRecord);
  // Of templates and namespaces, and not for a file name.
  std::erase_if(kind, [](char c) { return std::string_view("<>:").find(c) != std::string::npos; });
  return kind;
}

// Empty, which no file can be named, if it is too long.
std::string dump_path(std::string const& module, std::string const& kind, SYSTEMTIME const& now) {
  std::string path(MAX_PATH, '\0');
  int const length = _snprintf_s(path.data(), path.size(), _TRUNCATE, MiniDumpFileFormat,
                                 module.c_str(), kind.c_str(), now.wYear, now.wMonth, now.wDay,
                                 now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
  path.resize(static_cast<std::size_t>(std::max(length, 0)));
  return path;
}

}  // namespace

bool WriteMiniDump(std::string const& path, _EXCEPTION_POINTERS* pointers, unsigned long type,
                   unsigned long thread_id) {
  if (!SymInitialize()) return false;
  HANDLE const file = CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                  CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  auto const result = write_under_locks(file, pointers, type, thread_id);
  if (result == outcome::given_up) return false;
  CloseHandle(file);
  SymCleanup();
  return result == outcome::written;
}

std::string EGeneric::SaveMiniDump(_EXCEPTION_POINTERS* pointers, unsigned long type,
                                   unsigned long thread_id) {
  engine_hold const engine;
  SYSTEMTIME now;
  GetLocalTime(&now);
  auto path = dump_path(module_name(pointers, static_cast<bool>(engine)), kind_name(pointers), now);
  CreateDirectoryA(path.substr(0, path.rfind('\\')).c_str(), nullptr);
  if (!WriteMiniDump(path, pointers, type, thread_id)) path.clear();
  return path;
}

void EGeneric::cancel_minidump() {
  auto const dump = find_value("MiniDump");
  if (dump == list.end()) return;
  if (!dump->second.empty()) DeleteFileA(dump->second.as_string().c_str());
  list.erase(dump);
}
