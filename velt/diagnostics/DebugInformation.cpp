#include <windows.h>

#include <optional>

#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/faults/StructuredException.h"
#include "velt/faults/TranslatorInternal.h"
#include "velt/symbols/SymbolsInternal.h"

namespace {

using velt::detail::engine_hold;
using velt::detail::short_stack;

// When a thread walks its own stack, put_stack(), its caller and the constructor lie
// between the walk and the thrower. So the first two must not be inlined, not even in
// part.
constexpr unsigned int frames_above_thrower = 3;

[[gnu::noipa]] void put_stack(EGeneric& exception, _CONTEXT* context) {
  short_stack const stack(context, GetCurrentThread(), context ? 0 : frames_above_thrower);
  auto address = stack.address_to_blame();
  if (address == 0 && context) address = context->Rip;
  if (address != 0) {
    exception.put_value("ModuleName", SymGetModuleFromAddress(address));
    exception.put_value("AddressName", SymGetFullNameFromAddress(address));
  }
  if (!stack.empty()) exception.put_value("Stack", stack.text());
}

void put_dump(EGeneric& exception, _EXCEPTION_POINTERS* pointers) {
  auto const path = EGeneric::SaveMiniDump(pointers, MiniDumpType, GetCurrentThreadId());
  if (!path.empty()) exception.put_value("MiniDump", path);
}

}  // namespace

EGeneric::EGeneric(bool extend) {
  if (extend) ExtendDebugInformation(static_cast<_CONTEXT*>(nullptr));
}

[[gnu::noipa]] std::string EGeneric::BuildStack(_EXCEPTION_POINTERS* pointers, unsigned int skip,
                                                void* thread) {
  engine_hold const hold;  // for both the walk and the names
  return short_stack(pointers ? pointers->ContextRecord : nullptr, thread, skip).text();
}

[[gnu::noipa]] void EGeneric::ExtendDebugInformation(_CONTEXT* context) {
  bool const watched = velt::detail::throws_are_watched();
  if (SaveMiniDumpOnCppException && !watched && !dynamic_cast<EStructuredException*>(this))
    put_dump(*this, nullptr);
  if (!ExtendDebugInformationFromException) return;
  // The watch adds the stack of the throw, from the context of the throw.
  if (!context && watched) return;
  if (engine_hold const engine; engine) put_stack(*this, context);
}

[[gnu::noipa]] void EGeneric::ExtendDebugInformation(_EXCEPTION_POINTERS* pointers) {
  velt::detail::collecting_scope const collecting;
  std::optional<engine_hold const> engine;
  if (SaveMiniDumpOnStructuredException || ExtendDebugInformationFromException) engine.emplace();
  // Attempted even without the engine.
  if (SaveMiniDumpOnStructuredException) put_dump(*this, pointers);
  if (ExtendDebugInformationFromException && engine && *engine)
    put_stack(*this, pointers->ContextRecord);
}
