#include "velt/faults/StoppingFramesInternal.h"

#include <cstring>

#include "velt/faults/CallSitesInternal.h"

using personality_routine = EXCEPTION_DISPOSITION(EXCEPTION_RECORD*, void*, CONTEXT*,
                                                  DISPATCHER_CONTEXT*);
extern "C" personality_routine __real___gxx_personality_seh0;

namespace velt::detail {
namespace {

// The routine behind the jump through which a module calls an import. Each module
// has a jump of its own, so only the targets can be compared.
void const* routine_behind(void const* code) noexcept {
  constexpr BYTE jump[] = {0xFF, 0x25};  // to where the pointer at an offset points
  auto const bytes = static_cast<BYTE const*>(code);
  if (std::memcmp(bytes, jump, sizeof jump) != 0) return code;
  LONG offset;
  std::memcpy(&offset, bytes + sizeof jump, sizeof offset);
  return *reinterpret_cast<void* const*>(bytes + sizeof jump + sizeof offset + offset);
}

bool is_run_times_routine(void const* handler) noexcept {
  static void const* const real =
      routine_behind(reinterpret_cast<void const*>(&__real___gxx_personality_seh0));
  return handler && routine_behind(handler) == real;
}

// Whether the run time's own routine would stop the exception in the frame. It serves
// modules that are not linked with ours, its own module among them. It looks up the
// address before the place and terminates if that has no call site, or if an exception
// specification forbids to throw. A handler is a stop, too, while no stack is left:
// code that does not know the library cannot restore the guard, and where a handler
// ends so near to it, nobody can. The run time's streams have such handlers.
bool would_stop(void const* table, ULONG64 offset, bool faulted, bool stack_is_left) noexcept {
  if (!table) return false;
  auto const found = find_call_site(table, offset - 1);
  // The address before a fault may belong to another call site: the routine would run
  // the wrong landing pad, so such a frame is passed too.
  return !found || (faulted && found != find_call_site(table, offset)) ||
         has_specification(found->actions) || (!stack_is_left && has_catch(found->actions));
}

// Below it a handler could not restore the guard that an overflow has taken.
ULONG64 end_of_stack(EXCEPTION_RECORD const& record) noexcept {
  constexpr ULONG64 pages = 3 * 4096;
  return record.ExceptionCode == EXCEPTION_STACK_OVERFLOW ? record.ExceptionInformation[1] + pages
                                                          : 0;
}

}  // namespace

bool pass_stopping_frames(EXCEPTION_RECORD const& record, CONTEXT& place, CONTEXT& walker,
                          void* establisher) noexcept {
  bool moved = false;
  bool faulted = true;
  auto const target = reinterpret_cast<ULONG64>(establisher);
  for (ULONG64 const end = end_of_stack(record);; faulted = false) {
    ULONG64 const at = walker.Rip;
    ULONG64 base, frame;
    auto const function = RtlLookupFunctionEntry(at, &base, nullptr);
    if (!function) {
      // A leaf function, or a call through a bad pointer: the stack begins with the
      // return address.
      walker.Rip = *reinterpret_cast<ULONG64 const*>(walker.Rsp);
      walker.Rsp += sizeof walker.Rip;
      continue;
    }
    void* table = nullptr;
    auto const handler = RtlVirtualUnwind(UNW_FLAG_EHANDLER, base, at, function, &walker, &table,
                                          &frame, nullptr);
    if (frame >= target || walker.Rip == 0) return moved;
    if (!is_run_times_routine(reinterpret_cast<void const*>(handler)) ||
        !would_stop(table, at - base - function->BeginAddress, faulted, frame >= end))
      continue;
    place = walker;
    moved = true;
  }
}

}  // namespace velt::detail
