#include "velt/diagnostics/StackOverflowException.h"

#include <process.h>
#include <windows.h>

#include <malloc.h>

#include "velt/diagnostics/TranslatorInternal.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/CriticalSection.h"
#include "velt/locks/Handle.h"

namespace {

// One overflow at a time. What the thread that overflowed hands to the one that
// makes the exception, and how it learns of the end.
TCriticalSection StackOverflowLock;
THandle StackOverflowThread;
THandle StackOverflowDone;
_EXCEPTION_POINTERS* StackOverflowPointers = nullptr;
unsigned long StackOverflowThreadId = 0;

void* check(void* handle) {
  if (!handle) ThrowSystemException();
  return handle;
}

struct event_maker {
  event_maker() {
    StackOverflowDone.AttachHandle(check(CreateEventW(nullptr, FALSE, FALSE, nullptr)));
  }
} const made_at_load;

void throw_copy(void* target) {
  throw EStackOverflowException(*static_cast<EStackOverflowException*>(target));
}

// Calls that are queued meanwhile are run.
void wait_until_done() {
  while (StackOverflowDone.WaitForSingleObject(INFINITE, TRUE) != WAIT_OBJECT_0) {
  }
}

}  // namespace

EStackOverflowException::EStackOverflowException() = default;

EStackOverflowException::EStackOverflowException(_EXCEPTION_POINTERS* pointers,
                                                 unsigned long thread_id)
    : EStructuredException(EXCEPTION_STACK_OVERFLOW, pointers, thread_id) {}

// Every byte of this frame and of those below counts.
void EStackOverflowException::Throw(_EXCEPTION_POINTERS* pointers, unsigned long thread_id) {
  TLock const guard(StackOverflowLock);
  EStackOverflowException target;
  StackOverflowPointers = pointers;
  StackOverflowThreadId = thread_id;
  unsigned int id;
  auto const thread = _beginthreadex(nullptr, 0, ThrowThread, &target, 0, &id);
  StackOverflowThread.AttachHandle(check(reinterpret_cast<void*>(thread)));
  wait_until_done();
  StackOverflowThread.CloseHandle();
  velt::detail::throw_leanly(throw_copy, &target);
}

unsigned int EStackOverflowException::ThrowThread(void* target) {
  {
    EStackOverflowException const made(StackOverflowPointers, StackOverflowThreadId);
    *static_cast<EStackOverflowException*>(target) = made;
  }
  if (!SetEvent(StackOverflowDone)) ThrowSystemException();
  return 0;
}

bool EStackOverflowException::ResetStack() { return _resetstkoflw() != 0; }
