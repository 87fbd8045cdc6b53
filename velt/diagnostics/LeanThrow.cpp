// A throw that spares the stack. In the run time's own, what a throw and its
// search have put on the stack stays there until the first frame with a
// destructor has been reached, and the step into that frame is raised on top of
// it as another exception: 12 KB under Wine. Here both have the same place to
// begin at, one after the other: when the handler is found, the stack is cut
// back to this frame, and the unwinding goes on from here as it does behind a
// destructor.
#include <windows.h>

#include <unwind.h>

#include "velt/diagnostics/ThrownObjectInternal.h"
#include "velt/diagnostics/TranslatorInternal.h"

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

// Asked when the handler is known, with the registers as they are in the frame
// above, and once more when it is left for good.
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
  velt_throw_leanly(argument, thrower);
  __builtin_unreachable();
}
