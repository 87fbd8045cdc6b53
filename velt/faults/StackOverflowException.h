// A stack overflow as a C++ exception, and the way back to a stack that can overflow
// again. docs/faults.md tells which threads have enough stack left to handle one.
#pragma once

#include "velt/base/Export.h"
#include "velt/faults/StructuredException.h"

// As EStructuredException, with "Stack Overflow" as its "Text". The platform removes
// the guard of the stack when it overflows. A handler that catches the exception (or a
// base of it) restores the guard by ResetStack():
//
//   try {
//     parse(document);
//   } catch (EStackOverflowException&) {
//     EStackOverflowException::ResetStack();
//   }
//
// Without that call the guard is restored when the exception is destroyed, usually at
// the end of the handler. An overflow before that ends the thread or the process.
class VELT_API EStackOverflowException : public EStructuredException {
public:
  EStackOverflowException();
  // Needs much stack: call it on another thread than the one that overflowed.
  EStackOverflowException(_EXCEPTION_POINTERS* pointers, unsigned long thread_id);

  // For a translator, on the thread that overflowed. Starts a thread that makes the
  // exception, waits for it, and throws the exception. Overflows of several threads
  // take turns.
  //
  // Throws ESystemException instead if that thread cannot be started or waited
  // for. The wait is not alertable: queued calls stay for the thread's next wait.
  [[noreturn]] static void Throw(_EXCEPTION_POINTERS* pointers, unsigned long thread_id);

  // Restores the guard of the calling thread's stack, after the stack was unwound.
  // Returns false if the platform could not, for example because the call comes
  // from too deep in the stack. Harmless if the guard is in place.
  static bool ResetStack();

protected:
  // On the other thread: makes the exception and assigns it to `target`.
  static unsigned int ThrowThread(void* target);
};
