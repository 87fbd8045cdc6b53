// Translates faults in frames that GCC compiled. For each such frame with handlers
// or destructors the platform's dispatcher calls the run time's personality
// routine. That routine knows C++ throws only and lets faults pass. The routine
// here replaces it in every module that is linked with
// --wrap=__gxx_personality_seh0.
//
// The order of a fault that is translated:
// 1. The dispatcher searches from the fault outwards for a frame that takes it.
//    Frames of other languages decide for themselves. The first frame of ours
//    whose catch clauses cover the place calls the translator.
// 2. The translator throws, on top of the stack that faulted. A second search
//    begins, this time for a C++ exception, and reaches the fault's frame. The
//    real routine assumes that every frame has called something, which is false
//    for that frame.
// 3. The frames are unwound, the one with the fault among them.
//
// After an overflow there is no room for two searches on top of each other, with
// a record of all registers for every step. So the first search ends with step 1:
// the records are copied to new pages, and the thread continues in a function of
// ours just below the fault, which calls the translator. Frames whose own routine
// would end the process are passed in this way too: for the throw, the function
// below the fault returns to the first frame behind them.
//
// Nor is there room for a throw as the run time does it. It keeps its search on the
// stack until it reaches the first frame with a destructor, and raises the step into
// that frame as another exception on top, which takes 12 KB under Wine. So where the
// stack has run out, the first frame of ours drops the search once it has found the
// handler. The unwinding goes on from a function below that frame, as after a
// destructor.
//
// A vectored handler could not translate faults. It sees a fault before the
// handlers that frames of other languages have for it. And its throw would reach the
// frame with the fault from a function that this frame has not called.
#include <unwind.h>
#include <windows.h>

#include <cstddef>
#include <exception>
#include <optional>

#include "velt/base/LoadOrderInternal.h"
#include "velt/base/ThreadSlotInternal.h"
#include "velt/faults/CallSitesInternal.h"
#include "velt/faults/HeapCallInternal.h"
#include "velt/faults/ShadowStacksInternal.h"
#include "velt/faults/StoppingFramesInternal.h"
#include "velt/faults/ThrownObjectInternal.h"
#include "velt/faults/TranslatorInternal.h"

using personality_routine = EXCEPTION_DISPOSITION(EXCEPTION_RECORD*, void*, CONTEXT*,
                                                  DISPATCHER_CONTEXT*);
extern "C" personality_routine __real___gxx_personality_seh0;
extern "C" VELT_API personality_routine __wrap___gxx_personality_seh0;
extern "C" personality_routine velt_leave_translator;
extern "C" void velt_enter_translator(unsigned int code, _EXCEPTION_POINTERS* pointers,
                                      structured_exception_translator translator);
namespace velt::detail {
struct fault_report;
}
extern "C" void velt_land_below(void* argument, ULONG64 rip, ULONG64 rsp, void (*go_on)(void*));
extern "C" personality_routine velt_leave_landing;
extern "C" void velt_end_heap_call();
extern "C" [[noreturn]] void velt_land_behind_heap_call();

// The frame that calls the translator has a handler, which the platform calls
// whenever it unwinds the frame. A destructor would run for some kinds of unwinding
// only, and would cost a second dispatch. C++ cannot declare such a handler, hence
// the assembly.
asm(R"(
  .text
  .def velt_enter_translator; .scl 3; .type 32; .endef
  .seh_proc velt_enter_translator
velt_enter_translator:
  subq $40, %rsp
  .seh_stackalloc 40
  .seh_endprologue
  .seh_handler velt_leave_translator, @unwind, @except
  call *%r8
  nop
  addq $40, %rsp
  ret
  .seh_endproc
)");

// To an unwinder the function looks like an interrupt handler that the processor
// called at the instruction of the frame above: above its own frame lies a machine
// frame with the instruction pointer (lowest) and the stack pointer (fourth) to
// continue with. The other registers are unchanged. `cld`, since compiled code expects
// the direction flag to be clear and the code that faulted may have set it.
asm(R"(
  .text
  .def velt_land_below; .scl 3; .type 32; .endef
  .seh_proc velt_land_below
velt_land_below:
  .seh_pushframe
  subq $40, %rsp
  .seh_stackalloc 40
  .seh_endprologue
  .seh_handler velt_leave_landing, @unwind
  movq %rdx, 40(%rsp)
  movq %r8, 64(%rsp)
  cld
  call *%r9
  ud2
  .seh_endproc
)");

// A call of the heap returns to it, with the registers of that call's caller.
asm(R"(
  .text
  .def velt_end_heap_call; .scl 3; .type 32; .endef
velt_end_heap_call:
  subq $32, %rsp
  call velt_land_behind_heap_call
  ud2
)");

namespace velt::detail {

// A copy of the platform's records of a fault, in pages of its own.
struct fault_report {
  EXCEPTION_RECORD record;
  CONTEXT context;
  CONTEXT walker;   // work space for a walk over the frames
  CONTEXT landing;  // where the thread continues when its call of the heap has ended
};

namespace {

// A fault whose translator is running, or whose translator threw and the throw has
// not passed the fault's frame yet. Lives in the frame of call_translator.
struct open_fault {
  open_fault* outer;
  CONTEXT* context;
  bool frame_is_ours;    // the fault's frame uses our routine, which pass() has seen
  fault_report* report;  // null unless the context is in it
};

VELT_LOAD_STEP(translator_slots) thread_slot<void(unsigned int, _EXCEPTION_POINTERS*)> translators;
VELT_LOAD_STEP(translator_slots) thread_slot<open_fault> open_faults;
VELT_LOAD_STEP(translator_slots) thread_slot<fault_report> reports_behind_heap_calls;
VELT_LOAD_STEP(translator_slots) thread_slot<void> places_of_overflows;

void close(open_fault const& fault) noexcept {
  open_faults.set(fault.outer);
  if (fault.report) VirtualFree(fault.report, 0, MEM_RELEASE);
}

std::optional<call_site> call_site_at(DISPATCHER_CONTEXT const& frame, ULONG64 address) noexcept {
  return find_call_site(frame.HandlerData,
                        address - frame.ImageBase - frame.FunctionEntry->BeginAddress);
}

bool has_catch_for(DISPATCHER_CONTEXT const& frame, ULONG64 address) noexcept {
  auto const site = call_site_at(frame, address);
  return site && site->landing_pad && has_catch(site->actions);
}

// Computes the frame as the dispatcher does, for functions that keep a frame
// pointer. Not inlined, so that its large record takes stack only while it runs.
[[gnu::noinline]] bool is_frame_of(CONTEXT const& fault, void* establisher,
                                   DISPATCHER_CONTEXT const& frame) noexcept {
  CONTEXT context = fault;
  void* handler_data;
  ULONG64 found;
  RtlVirtualUnwind(UNW_FLAG_NHANDLER, frame.ImageBase, frame.ControlPc, frame.FunctionEntry,
                   &context, &handler_data, &found, nullptr);
  return found == reinterpret_cast<ULONG64>(establisher);
}

// Whether the fault happened in this very frame. The address alone cannot decide:
// if the instruction after a call faults, its address is also the return address in
// the other frames of a recursion.
bool is_faulting_frame(CONTEXT const& fault, void* establisher,
                       DISPATCHER_CONTEXT const& frame) noexcept {
  if (frame.ControlPc != fault.Rip) return false;
  return reinterpret_cast<ULONG64>(establisher) == fault.Rsp ||
         is_frame_of(fault, establisher, frame);
}

void call_translator(structured_exception_translator translator, EXCEPTION_RECORD* record,
                     CONTEXT* context, fault_report* report = nullptr) {
  open_fault fault{open_faults.get(), context, false, report};
  EXCEPTION_POINTERS pointers{record, context};
  open_faults.set(&fault);
  velt_enter_translator(record->ExceptionCode, &pointers, translator);
  close(fault);
}

// Asks for a frame of the dispatcher's search, and keeps the large records out of the
// caller's frame.
[[gnu::noinline]] bool has_stopping_frames(EXCEPTION_RECORD const& record, CONTEXT const& fault,
                                           void* establisher) noexcept {
  CONTEXT place, walker = fault;
  return pass_stopping_frames(record, place, walker, establisher);
}

// Null if there is no memory. The upper halves of wide registers lie behind the
// context and are not copied, so the copy must not claim them in its flags.
fault_report* report_of(EXCEPTION_RECORD const& record, CONTEXT const& context) noexcept {
  auto const report = static_cast<fault_report*>(
      VirtualAlloc(nullptr, sizeof(fault_report), MEM_COMMIT, PAGE_READWRITE));
  if (!report) return nullptr;
  report->record = record;
  report->context = context;
  constexpr DWORD extended_state = 0x40;
  report->context.ContextFlags &= ~extended_state;
  report->walker = report->context;
  return report;
}

// Changes the place so that the thread continues in the function, which must not return,
// on a frame directly below the bottom.
void land_below(CONTEXT& place, ULONG64 bottom, void (*go_on)(void*), void* argument) noexcept {
  constexpr ULONG64 machine_frame = 40;  // five words, as the processor pushes them
  place.Rcx = reinterpret_cast<ULONG64>(argument);
  place.Rdx = place.Rip;
  place.R8 = place.Rsp;
  place.R9 = reinterpret_cast<ULONG64>(go_on);
  place.Rip = reinterpret_cast<ULONG64>(&velt_land_below);
  place.Rsp = (bottom & ~ULONG64{15}) - machine_frame;
}

// The search has ended already, so a translator that returns leaves nothing to resume.
void translate_report(void* argument) {
  auto const report = static_cast<fault_report*>(argument);
  call_translator(translators.get(), &report->record, &report->context, report);
  std::terminate();
}

// Changes the place, which was that of the fault, so that the thread throws from below it.
void land_below_fault(EXCEPTION_RECORD const& record, CONTEXT& place, fault_report* report,
                      void* establisher) noexcept {
  ULONG64 const bottom = place.Rsp;
  DWORD const flags = place.ContextFlags;
  report->walker = report->context;
  pass_stopping_frames(record, place, report->walker, establisher);
  // The walker's flags lack the extended state, which still lies behind the context.
  place.ContextFlags = flags;
  land_below(place, bottom, translate_report, report);
}

// Changes the context so that the exception is thrown from below the fault. False if
// the fault does not allow continuing, or if the report cannot be made. A call of the
// heap ends first, so that its lock is free; it has the reserve of the stack. Its result
// is lost, and the place of the fault is that of the call.
bool redirect_below_fault(EXCEPTION_RECORD const& record, CONTEXT& context,
                          void* establisher) noexcept {
  if ((record.ExceptionFlags & EXCEPTION_NONCONTINUABLE) || !may_redirect_threads()) return false;
  auto const report = report_of(record, context);
  if (!report) return false;
  auto const return_address = leave_heap_call(report->context, report->walker);
  if (!return_address) {
    land_below_fault(record, context, report, establisher);
    return true;
  }
  // Within the call, since the address behind it may have another call site.
  --report->context.Rip;
  report->record.ExceptionAddress = reinterpret_cast<void*>(report->context.Rip);
  report->landing = report->context;
  land_below_fault(record, report->landing, report, establisher);
  reports_behind_heap_calls.set(report);
  *return_address = reinterpret_cast<ULONG64>(&velt_end_heap_call);
  return true;
}

bool is_unwinding(EXCEPTION_RECORD const& record) noexcept {
  return record.ExceptionFlags & (EXCEPTION_UNWINDING | EXCEPTION_EXIT_UNWIND);
}

// False for this run time's throws and steps of unwinding, whose codes differ in the
// first byte, and for throws of the platform's compiler.
bool is_fault(EXCEPTION_RECORD const& record) noexcept {
  return (record.ExceptionCode & 0x20FFFFFF) != own_throw_code &&
         record.ExceptionCode != foreign_throw_code;
}

// A fault in a translator is not translated once its search has passed the first
// fault. The next translator would fault in the same way, until the stack is used up.
bool is_beyond(open_fault const* fault, void* establisher) noexcept {
  return fault && static_cast<void const*>(fault) < establisher;
}

EXCEPTION_DISPOSITION search(EXCEPTION_RECORD* record, void* establisher, CONTEXT* context,
                             DISPATCHER_CONTEXT const& frame) {
  auto const translator = translators.get();
  if (!translator || is_beyond(open_faults.get(), establisher)) return ExceptionContinueSearch;
  bool const faulted = is_faulting_frame(*context, establisher, frame);
  // In a frame that called something, the return address may lie behind the try block.
  if (!has_catch_for(frame, faulted ? frame.ControlPc : frame.ControlPc - 1))
    return ExceptionContinueSearch;
  bool const overflowed = record->ExceptionCode == EXCEPTION_STACK_OVERFLOW;
  if (overflowed) places_of_overflows.set(reinterpret_cast<void*>(context->Rsp));
  if ((overflowed || has_stopping_frames(*record, *context, establisher)) &&
      redirect_below_fault(*record, *context, establisher))
    return ExceptionContinueExecution;
  call_translator(translator, record, context);
  return ExceptionContinueSearch;
}

// The real routine subtracts one from the address it is given, because a return address
// may already lie in the next call site. A faulting instruction must be looked up at
// its own address, so one is added for it. Its frame is the only one of which a record
// stays on the stack meanwhile.
[[gnu::noinline]] EXCEPTION_DISPOSITION pass_fault(EXCEPTION_RECORD* record, void* establisher,
                                                   CONTEXT* context, DISPATCHER_CONTEXT* frame) {
  DISPATCHER_CONTEXT behind = *frame;
  ++behind.ControlPc;
  return __real___gxx_personality_seh0(record, establisher, context, &behind);
}

// Whether the fault whose exception is under way happened in this frame. Closes it when
// its frame is unwound.
[[gnu::noinline]] bool note_frame_of_fault(EXCEPTION_RECORD const& record, void* establisher,
                                           DISPATCHER_CONTEXT const& frame) noexcept {
  auto const fault = open_faults.get();
  if (!fault || !is_faulting_frame(*fault->context, establisher, frame)) return false;
  fault->frame_is_ours = true;
  if (is_unwinding(record)) close(*fault);
  return true;
}

// The compiler did not expect a throw here, so the real routine would terminate.
[[gnu::noinline]] bool is_unexpected(EXCEPTION_RECORD const& record,
                                     DISPATCHER_CONTEXT const& frame, bool faulted) noexcept {
  return is_born_of_fault(record) &&
         !call_site_at(frame, faulted ? frame.ControlPc : frame.ControlPc - 1);
}

// Whether the throw still lies on the stack below the frame, where the stack has run out
// before. A record of a later step has no address.
bool takes_scarce_stack(EXCEPTION_RECORD const& record, void* establisher) noexcept {
  constexpr std::ptrdiff_t scarce = 3 * 4096;
  auto const overflow = static_cast<char const*>(places_of_overflows.get());
  return overflow && static_cast<char const*>(establisher) - overflow < scarce &&
         record.ExceptionAddress && is_unwinding(record) &&
         !(record.ExceptionFlags & EXCEPTION_TARGET_UNWIND) && may_redirect_threads();
}

// The handler is known, so the frame, which has called the throw, can resume.
[[noreturn]] void drop_throw(EXCEPTION_RECORD const& record, CONTEXT& frame) noexcept {
  auto const resume = [](void* exception) {
    _Unwind_Resume(static_cast<_Unwind_Exception*>(exception));
  };
  land_below(frame, frame.Rsp, resume, reinterpret_cast<void*>(record.ExceptionInformation[0]));
  RtlRestoreContext(&frame, nullptr);
  __builtin_unreachable();
}

// A C++ exception passes a frame, or is caught there. Ends by jumps, not calls, and so
// takes no room on the stack.
EXCEPTION_DISPOSITION pass(EXCEPTION_RECORD* record, void* establisher, CONTEXT* context,
                           DISPATCHER_CONTEXT* frame) {
  if (record->ExceptionCode == own_throw_code && takes_scarce_stack(*record, establisher))
    drop_throw(*record, *frame->ContextRecord);
  bool const faulted = note_frame_of_fault(*record, establisher, *frame);
  if (record->ExceptionCode == own_throw_code) {
    if (is_unexpected(*record, *frame, faulted)) return ExceptionContinueSearch;
    if (faulted) return pass_fault(record, establisher, context, frame);
  }
  return __real___gxx_personality_seh0(record, establisher, context, frame);
}

}  // namespace

structured_exception_translator set_translator(
    structured_exception_translator translator) noexcept {
  auto const previous = translators.get();
  translators.set(translator);
  return previous;
}

}  // namespace velt::detail

EXCEPTION_DISPOSITION __wrap___gxx_personality_seh0(EXCEPTION_RECORD* record, void* establisher,
                                                    CONTEXT* context, DISPATCHER_CONTEXT* frame) {
  using namespace velt::detail;
  if (!is_fault(*record) || is_unwinding(*record)) return pass(record, establisher, context, frame);
  if (auto const answer = search(record, establisher, context, *frame);
      answer != ExceptionContinueSearch)
    return answer;
  return __real___gxx_personality_seh0(record, establisher, context, frame);
}

// The throw that the landing has resumed is another one, whose records end here.
EXCEPTION_DISPOSITION velt_leave_landing(EXCEPTION_RECORD* record, void*, CONTEXT*,
                                         DISPATCHER_CONTEXT*) {
  record->ExceptionAddress = nullptr;
  return ExceptionContinueSearch;
}

void velt_land_behind_heap_call() {
  using namespace velt::detail;
  auto const report = reports_behind_heap_calls.get();
  RtlRestoreContext(&report->landing, nullptr);
  __builtin_unreachable();
}

// The search reaches this frame before any frame further out, so the exception is marked
// before pass() asks for the mark. Unwinding closes the fault here unless its own
// frame uses our routine: then pass() still needs the fault and closes it there.
EXCEPTION_DISPOSITION velt_leave_translator(EXCEPTION_RECORD* record, void*, CONTEXT*,
                                            DISPATCHER_CONTEXT*) {
  using namespace velt::detail;
  auto const fault = open_faults.get();
  if (!is_unwinding(*record))
    mark_born_of_fault(*record);
  else if (fault && !fault->frame_is_ours)
    close(*fault);
  return ExceptionContinueSearch;
}
