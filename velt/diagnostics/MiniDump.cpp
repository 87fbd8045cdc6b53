#include "velt/diagnostics/MiniDump.h"

#include <windows.h>

#include <dbghelp.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <string_view>

#include "velt/base/LoadOrderInternal.h"
#include "velt/diagnostics/DumpCheckInternal.h"
#include "velt/diagnostics/ProcessStopInternal.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/faults/ThrownObjectInternal.h"
#include "velt/symbols/LoaderLockInternal.h"
#include "velt/symbols/SymbolsInternal.h"

namespace {

using namespace velt::detail;

enum class outcome { written, failed, given_up };

// The arguments for the platform's writer.
struct request {
  HANDLE file;
  unsigned long type, thread_id;
  _EXCEPTION_POINTERS* pointers;

  // The writer would dereference a null pointer.
  bool has_records() const noexcept {
    return pointers && pointers->ExceptionRecord && pointers->ContextRecord;
  }
};

outcome write_file(request const& dump) {
  auto const write = reinterpret_cast<decltype(&MiniDumpWriteDump)>(dump_writer());
  if (!write) return outcome::failed;
  MINIDUMP_EXCEPTION_INFORMATION exception{dump.thread_id, dump.pointers, TRUE};
  bool const written =
      write(GetCurrentProcess(), GetCurrentProcessId(), dump.file,
            static_cast<MINIDUMP_TYPE>(dump.type), dump.has_records() ? &exception : nullptr,
            nullptr, nullptr);
  return written ? outcome::written : outcome::failed;
}

// The writer cannot read the registers of the thread that it runs on. So without
// records another thread writes.
outcome write_on_helper(process_stop& stop, request const& dump) {
  auto const result = std::make_shared<std::atomic<outcome>>(outcome::failed);
  stop.run_on_helper([=] { *result = write_file(dump); });
  return *result;
}

outcome write_alone(request const& dump) {
  process_stop stop;
  if (!stop.is_ready()) return outcome::given_up;
  symbol_hold const symbols;
  if (!symbols || !stop.stop_others()) return outcome::given_up;
  auto const result = dump.has_records() ? write_file(dump) : write_on_helper(stop, dump);
  stop.let_others_go();
  return result;
}

// A module that the thrower named takes precedence over the stack.
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

// Found at load: the platform call may wait for the loader lock.
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
  // They occur in templates and namespaces, and are not allowed in file names.
  std::erase_if(kind, [](char c) { return std::string_view("<>:").find(c) != std::string::npos; });
  return kind;
}

// Empty if it is too long; no file can be created then.
std::string dump_path(std::string const& module, std::string const& kind, SYSTEMTIME const& now) {
  std::string path(MAX_PATH, '\0');
  int const length = _snprintf_s(path.data(), path.size(), _TRUNCATE, MiniDumpFileFormat,
                                 module.c_str(), kind.c_str(), now.wYear, now.wMonth, now.wDay,
                                 now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
  path.resize(static_cast<std::size_t>(std::max(length, 0)));
  return path;
}

HANDLE create(std::string const& path, DWORD disposition) {
  return CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, disposition,
                     FILE_ATTRIBUTE_NORMAL, nullptr);
}

// A second dump of the same millisecond gets a number after its name.
HANDLE create_unused(std::string& path) {
  auto const end = std::min(path.rfind('.'), path.size());
  auto const name = path.substr(0, end), extension = path.substr(end);
  HANDLE file = create(path, CREATE_NEW);
  for (int i = 2; file == INVALID_HANDLE_VALUE && GetLastError() == ERROR_FILE_EXISTS; ++i)
    file = create(path = name + "_" + std::to_string(i) + extension, CREATE_NEW);
  return file;
}

// A writer that uses a thread of its own would wait for the loader lock.
bool may_write() { return !owns_loader_lock() && SymInitialize(); }

// Writes into the new file at this path.
bool write_and_close(std::string const& path, request const& dump) {
  if (dump.file == INVALID_HANDLE_VALUE) return false;
  auto const result = write_alone(dump);
  if (result == outcome::given_up) return false;
  CloseHandle(dump.file);
  SymCleanup();
  if (is_whole_dump(path.c_str())) return result == outcome::written;
  DeleteFileA(path.c_str());
  return false;
}

}  // namespace

bool WriteMiniDump(std::string const& path, _EXCEPTION_POINTERS* pointers, unsigned long type,
                   unsigned long thread_id) {
  return may_write() &&
         write_and_close(path, {create(path, CREATE_ALWAYS), type, thread_id, pointers});
}

std::string EGeneric::SaveMiniDump(_EXCEPTION_POINTERS* pointers, unsigned long type,
                                   unsigned long thread_id) {
  engine_hold const engine;
  SYSTEMTIME now;
  GetLocalTime(&now);
  auto path = dump_path(module_name(pointers, static_cast<bool>(engine)), kind_name(pointers), now);
  CreateDirectoryA(path.substr(0, path.rfind('\\')).c_str(), nullptr);
  bool const is_written =
      may_write() && write_and_close(path, {create_unused(path), type, thread_id, pointers});
  return is_written ? path : std::string();
}

void EGeneric::cancel_minidump() {
  auto const dump = find_value("MiniDump");
  if (dump == list.end()) return;
  if (!dump->second.empty()) DeleteFileA(dump->second.as_string().c_str());
  list.erase(dump);
}
