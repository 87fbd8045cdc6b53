#include <windows.h>

#include <optional>
#include <string>
#include <utility>

#include "velt/base/EntryInternal.h"
#include "velt/base/LastErrorInternal.h"
#include "velt/diagnostics/Settings.h"
#include "velt/diagnostics/ThrowWatchingInternal.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/faults/StructuredException.h"
#include "velt/faults/ThrownObjectInternal.h"
#include "velt/faults/TranslatorInternal.h"
#include "velt/symbols/SymbolsInternal.h"

namespace velt::detail {

// A friend of EGeneric, which adds values to an exception in flight.
class throw_watcher {
public:
  explicit throw_watcher(_EXCEPTION_POINTERS* pointers)
      : fault(pointers),
        generic(static_cast<EGeneric*>(ThrownObjectAs(pointers, typeid(EGeneric)))) {}

  void watch() {
    std::optional<engine_hold> symbols;
    if (lacks_stack()) {
      symbols.emplace();
      generic->ExtendDebugInformation(fault->ContextRecord);
    }
    if (SaveMiniDumpOnCppException && !has("MiniDump") && !is_excluded()) save_dump();
  }

private:
  bool lacks_stack() const {
    return generic && ExtendDebugInformationFromException && !has("Stack");
  }

  // An exception that is thrown again has the values of its first throw.
  bool has(char const* name) const { return generic && generic->get_value(name).size() != 0; }

  // The name may occur anywhere in the text, even as part of another name.
  bool is_excluded() const {
    auto const name = ThrownTypeName(fault);
    return MiniDumpExcludedTypes.find(name.empty() ? "C++" : name) != std::string::npos;
  }

  void save_dump() {
    auto const path = EGeneric::SaveMiniDump(fault, MiniDumpType, GetCurrentThreadId());
    if (!generic || path.empty()) return;
    generic->put_value("MiniDump", path);
    generic->move_to_back("Stack");
  }

  _EXCEPTION_POINTERS* const fault;
  EGeneric* const generic;
};

namespace {

// Looked up by name, since not every platform has them.
struct platform_entries {
  decltype(&::AddVectoredExceptionHandler) AddVectoredExceptionHandler = nullptr;
  decltype(&::RemoveVectoredExceptionHandler) RemoveVectoredExceptionHandler = nullptr;
};
constinit platform_entries platform;
constexpr wchar_t kernel32[] = L"kernel32.dll";
constinit void* VectoredHandlerHandle = nullptr;

bool is_for_debuggers(DWORD code) noexcept { return (code & 0xFFFF0000) == 0x40010000; }

// EStructuredException collected its diagnostics in its constructor;
// EThreadInterrupt is not an error.
bool is_of_no_interest(_EXCEPTION_POINTERS const* pointers) {
  return ThrownTypeIs(pointers, typeid(EStructuredException)) ||
         ThrownTypeIs(pointers, typeid(EThreadInterrupt));
}

LONG WINAPI WatchExceptions(_EXCEPTION_POINTERS* pointers) {
  if (is_for_debuggers(pointers->ExceptionRecord->ExceptionCode) || !UseVEH ||
      !throws_are_watched())
    return EXCEPTION_CONTINUE_SEARCH;
  if (!SaveMiniDumpOnCppException && !ExtendDebugInformationFromException)
    return EXCEPTION_CONTINUE_SEARCH;
  // The handler's own calls may throw and catch.
  if (collecting_scope::exists()) return EXCEPTION_CONTINUE_SEARCH;
  last_error_keeper const error;
  collecting_scope const collecting;
  if (!is_typed_throw(pointers)) return EXCEPTION_CONTINUE_SEARCH;
  try {
    if (!is_of_no_interest(pointers)) throw_watcher(pointers).watch();
  } catch (...) {
    // The exception in flight matters more; it continues with the values that it has.
  }
  return EXCEPTION_CONTINUE_SEARCH;
}

}  // namespace

bool throws_are_watched() noexcept { return VectoredHandlerHandle != nullptr; }

void start_watching_throws() {
  platform = {
      find_entry<decltype(::AddVectoredExceptionHandler)>(kernel32, "AddVectoredExceptionHandler"),
      find_entry<decltype(::RemoveVectoredExceptionHandler)>(kernel32,
                                                             "RemoveVectoredExceptionHandler"),
  };
  constexpr ULONG first = 1;
  if (platform.AddVectoredExceptionHandler && platform.RemoveVectoredExceptionHandler)
    VectoredHandlerHandle = platform.AddVectoredExceptionHandler(first, WatchExceptions);
}

void stop_watching_throws(bool process_ends) noexcept {
  void* const handle = std::exchange(VectoredHandlerHandle, nullptr);
  // At the end of the process the call could deadlock: it takes a lock and frees memory.
  if (handle && !process_ends) platform.RemoveVectoredExceptionHandler(handle);
}

}  // namespace velt::detail
