#include <windows.h>

#include <optional>
#include <string>
#include <utility>

#include "velt/diagnostics/Settings.h"
#include "velt/diagnostics/StructuredException.h"
#include "velt/diagnostics/SymbolsInternal.h"
#include "velt/diagnostics/ThreadSlotInternal.h"
#include "velt/diagnostics/ThrowWatchingInternal.h"
#include "velt/diagnostics/ThrownObjectInternal.h"
#include "velt/diagnostics/TranslatorInternal.h"
#include "velt/exceptions/ExceptionFamily.h"

namespace velt::detail {

// What EGeneric lets do with an exception that is under way.
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
    if (SaveMiniDumpOnCppException && !is_excluded()) save_dump();
  }

private:
  bool lacks_stack() const {
    if (!generic || !ExtendDebugInformationFromException) return false;
    auto const elements = generic->get_value("Stack").size();
    return elements == 0;
  }

  // Anywhere in the text, whatever stands around it.
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

// Marks that the thread is inside the handler.
class active_scope {
public:
  active_scope() noexcept { HandlerActiveSlot.set(this); }
  ~active_scope() { HandlerActiveSlot.set(nullptr); }
  active_scope(active_scope const&) = delete;
  active_scope& operator=(active_scope const&) = delete;

  static bool exists() noexcept { return HandlerActiveSlot.get(); }

private:
  static inline thread_slot<active_scope> HandlerActiveSlot;
};

// A throw between a failed call and the question for its error.
class last_error_keeper {
public:
  last_error_keeper() = default;
  ~last_error_keeper() { SetLastError(error); }
  last_error_keeper(last_error_keeper const&) = delete;
  last_error_keeper& operator=(last_error_keeper const&) = delete;

private:
  DWORD const error = GetLastError();
};

// Looked up by name: not every platform has them.
struct platform_entries {
  decltype(&::AddVectoredExceptionHandler) AddVectoredExceptionHandler = nullptr;
  decltype(&::RemoveVectoredExceptionHandler) RemoveVectoredExceptionHandler = nullptr;
};
constinit platform_entries platform;
constinit void* VectoredHandlerHandle = nullptr;

bool is_for_debuggers(DWORD code) noexcept { return (code & 0xFFFF0000) == 0x40010000; }

// The first have all that there is to have, from their constructors; the second
// are no errors.
bool is_of_no_interest(_EXCEPTION_POINTERS const* pointers) {
  return ThrownTypeIs(pointers, typeid(EStructuredException)) ||
         ThrownTypeIs(pointers, typeid(EThreadInterrupt));
}

LONG WINAPI WatchExceptions(_EXCEPTION_POINTERS* pointers) {
  if (is_for_debuggers(pointers->ExceptionRecord->ExceptionCode) || !UseVEH ||
      !throws_are_watched())
    return EXCEPTION_CONTINUE_SEARCH;
  // What is done here may itself throw and catch.
  if (active_scope::exists()) return EXCEPTION_CONTINUE_SEARCH;
  last_error_keeper const error;
  active_scope const active;
  if (!is_typed_throw(pointers)) return EXCEPTION_CONTINUE_SEARCH;
  try {
    if (!is_of_no_interest(pointers)) throw_watcher(pointers).watch();
  } catch (...) {
    // The exception under way is what matters; it goes on with what it has.
  }
  return EXCEPTION_CONTINUE_SEARCH;
}

template <class Entry>
void look_up(Entry& entry, HMODULE module, char const* name) noexcept {
  entry = reinterpret_cast<Entry>(reinterpret_cast<void (*)()>(GetProcAddress(module, name)));
}

}  // namespace

bool throws_are_watched() noexcept { return VectoredHandlerHandle != nullptr; }

void start_watching_throws() {
  HMODULE const kernel = GetModuleHandleA("kernel32.dll");
  look_up(platform.AddVectoredExceptionHandler, kernel, "AddVectoredExceptionHandler");
  look_up(platform.RemoveVectoredExceptionHandler, kernel, "RemoveVectoredExceptionHandler");
  constexpr ULONG first = 1;
  if (platform.AddVectoredExceptionHandler && platform.RemoveVectoredExceptionHandler)
    VectoredHandlerHandle = platform.AddVectoredExceptionHandler(first, WatchExceptions);
}

void stop_watching_throws(bool process_ends) noexcept {
  void* const handle = std::exchange(VectoredHandlerHandle, nullptr);
  // The platform would wait for its lock and free memory.
  if (handle && !process_ends) platform.RemoveVectoredExceptionHandler(handle);
}

}  // namespace velt::detail
