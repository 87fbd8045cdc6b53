#include "velt/faults/StackOverflowException.h"

#include <process.h>
#include <windows.h>

#include <cxxabi.h>
#include <malloc.h>

#include <new>
#include <typeinfo>

#include "velt/base/CheckInternal.h"
#include "velt/base/LoadOrderInternal.h"
#include "velt/locks/CriticalSection.h"
#include "velt/locks/Handle.h"

using velt::detail::check;

namespace {

// The lock admits one overflow at a time. The other variables pass the fault to the
// thread that makes the exception, and report back that it is done.
VELT_LOAD_STEP(stack_overflow_lock) TCriticalSection StackOverflowLock;
VELT_LOAD_STEP(stack_overflow_thread) THandle StackOverflowThread;
_EXCEPTION_POINTERS* StackOverflowPointers = nullptr;
unsigned long StackOverflowThreadId = 0;

VELT_LOAD_STEP(stack_overflow_done) struct done_event : THandle {
  done_event() { AttachHandle(check(CreateEventW(nullptr, FALSE, FALSE, nullptr))); }
} StackOverflowDone;

// The run time calls it at the end of the last handler, where the stack is unwound. So
// the next overflow is caught, too, if the handler knows nothing of guards.
void destroy_and_reset(void* thrown) {
  static_cast<EStackOverflowException*>(thrown)->~EStackOverflowException();
  EStackOverflowException::ResetStack();
}

// As a throw expression does, but for the function that destroys the object.
[[noreturn]] void throw_copy(EStackOverflowException const& target) {
  void* const copy = abi::__cxa_allocate_exception(sizeof(EStackOverflowException));
  new (copy) EStackOverflowException(target);
  abi::__cxa_throw(copy, const_cast<std::type_info*>(&typeid(EStackOverflowException)),
                   destroy_and_reset);
}

}  // namespace

EStackOverflowException::EStackOverflowException() = default;

EStackOverflowException::EStackOverflowException(_EXCEPTION_POINTERS* pointers,
                                                 unsigned long thread_id)
    : EStructuredException(EXCEPTION_STACK_OVERFLOW, pointers, thread_id) {}

// Runs on the stack that overflowed: each byte of this frame and of its callees' counts.
void EStackOverflowException::Throw(_EXCEPTION_POINTERS* pointers, unsigned long thread_id) {
  TLock const guard(StackOverflowLock);
  EStackOverflowException target;
  StackOverflowPointers = pointers;
  StackOverflowThreadId = thread_id;
  unsigned int id;
  auto const thread = _beginthreadex(nullptr, 0, ThrowThread, &target, 0, &id);
  StackOverflowThread.AttachHandle(check(reinterpret_cast<void*>(thread)));
  // Not alertable: an interruption would leave this frame, which the thread writes to.
  StackOverflowDone.WaitForSingleObject(INFINITE, FALSE);
  StackOverflowThread.CloseHandle();
  throw_copy(target);
}

unsigned int EStackOverflowException::ThrowThread(void* target) {
  {
    EStackOverflowException const made(StackOverflowPointers, StackOverflowThreadId);
    *static_cast<EStackOverflowException*>(target) = made;
  }
  check(SetEvent(StackOverflowDone));
  return 0;
}

bool EStackOverflowException::ResetStack() { return _resetstkoflw() != 0; }
