// An overflow of the stack as a C++ exception, and the way back to a stack that
// can overflow again. docs/faults.md tells which threads have what that
// takes.
#pragma once

#include "velt/base/Export.h"
#include "velt/faults/StructuredException.h"

// As EStructuredException, with "Text" being "Stack Overflow". A handler that
// catches it (or a base of it) calls ResetStack(), or the next overflow of the
// thread ends the process:
//
//   try {
//     parse(document);
//   } catch (EStackOverflowException&) {
//     EStackOverflowException::ResetStack();
//   }
class VELT_API EStackOverflowException : public EStructuredException {
public:
  EStackOverflowException();
  // Needs much stack: for another thread than the one that overflowed.
  EStackOverflowException(_EXCEPTION_POINTERS* pointers, unsigned long thread_id);

  // For a translator, on the thread that overflowed. Has the exception made on a
  // thread of its own, waits for it, and throws it. Overflows of several threads
  // take turns.
  //
  // Throws ESystemException instead if that thread cannot be started or waited
  // for. The wait is alertable, and a queued call that throws out of it leaves
  // the other thread writing to a frame that is gone: whoever interrupts a
  // thread must know that it does not overflow.
  [[noreturn]] static void Throw(_EXCEPTION_POINTERS* pointers, unsigned long thread_id);

  // Gives the calling thread's stack its guard back, after the stack was unwound.
  // False if the platform could not, as from too deep down. Does no harm to a
  // stack that has its guard.
  static bool ResetStack();

protected:
  // On the other thread: makes the exception and assigns it to `target`.
  static unsigned int ThrowThread(void* target);
};
