// A throw that spares the stack. The run time keeps its throw and its search on the
// stack until it reaches the first frame with a destructor. It raises the step into
// that frame as another exception on top of them, which takes 12 KB under Wine. Here
// the two follow each other: when the handler is known, the stack is cut back to a
// frame above the throw, and unwinding goes on from there as after a destructor.
#include <windows.h>

#include "velt/faults/ShadowStacksInternal.h"
#include "velt/faults/ThrownObjectInternal.h"
#include "velt/faults/TranslatorInternal.h"

extern "C" EXCEPTION_DISPOSITION velt_cut_back(EXCEPTION_RECORD*, void*, CONTEXT*,
                                               DISPATCHER_CONTEXT*);
extern "C" void velt_throw_leanly(void* argument, void (*thrower)(void* argument));
extern "C" char const velt_resume_lean_throw[];

asm(R"(
  .text
  .def velt_throw_leanly; .scl 3; .type 32; .endef
  .seh_proc velt_throw_leanly
velt_throw_leanly:
  subq $40, %rsp
  .seh_stackalloc 40
  .seh_endprologue
  .seh_handler velt_cut_back, @unwind
  call *%rdx
  nop
velt_resume_lean_throw:
  call _Unwind_Resume
  ud2
  .seh_endproc
)");

// Called when the handler is known, with the registers of velt_throw_leanly's frame
// and again when the resumed unwinding leaves that frame for good.
EXCEPTION_DISPOSITION velt_cut_back(EXCEPTION_RECORD* record, void*, CONTEXT*,
                                    DISPATCHER_CONTEXT* frame) {
  auto const resumption = reinterpret_cast<ULONG64>(velt_resume_lean_throw);
  if (record->ExceptionCode != velt::detail::own_throw_code || frame->ControlPc > resumption)
    return ExceptionContinueSearch;
  CONTEXT& here = *frame->ContextRecord;
  here.Rip = resumption;
  here.Rcx = record->ExceptionInformation[0];
  RtlRestoreContext(&here, nullptr);
  __builtin_unreachable();
}

void velt::detail::throw_leanly(void (*thrower)(void* argument), void* argument) {
  if (!may_redirect_threads()) thrower(argument);
  velt_throw_leanly(argument, thrower);
  __builtin_unreachable();
}

void velt::detail::throw_on_leanly() {
  throw_leanly([](void*) { throw; }, nullptr);
}
