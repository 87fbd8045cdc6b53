// TThread: the owner of a thread's handle, with the platform's operations on
// threads. For a thread that is an object of its own, and that can be
// interrupted, derive from TThreadClass; where only work is to be done on some
// other thread, std::jthread is the simpler choice.
#pragma once

#include <cstdint>  // __int64

#include "velt/base/DoNotInitialize.h"
#include "velt/base/Export.h"
#include "velt/locks/Handle.h"

// The handle is kept as by THandle: a copy refers to the same thread, and the
// end of the object closes the handle and leaves the thread alone. Operations go
// to the platform's calls of the same names, and throw ESystemException when
// these fail. The thread may be any, the calling one among them.
class VELT_API TThread : public THandle {
public:
  // In the form that the run-time library takes; the result is the exit code.
  using thread_entry = unsigned int (*)(void* argument);

  // No thread.
  TThread(_DoNotInitialize const&) noexcept {}
  // Starts a thread with the program's default stack size.
  TThread(thread_entry entry, void* argument);

  // The same with a stack size in bytes, 0 being the default. The new handle
  // overwrites the one held, which is not closed.
  void CreateThread(thread_entry entry, void* argument, unsigned long stackSize);

  void SetThreadPriority(int priority);

  // Sets the priority to 1 for true and to 0 for false; the boost stays as it
  // is.
  void DisableThreadPriorityBoost(bool disable);

  // Ends the thread between any two instructions: nothing is unwound, its locks
  // stay taken. docs/threads.md tells what is left behind.
  void TerminateThread(unsigned long code);

  // Null takes the thread's token away.
  void SetThreadToken(void* token);

  void SuspendThread();
  void ResumeThread();

  // The routine runs on the thread in its next alertable wait.
  void QueueUserAPC(void (*routine)(unsigned __int64), unsigned __int64 argument);

  // Waits for so many milliseconds, 0xFFFFFFFF meaning for ever. A queued call
  // ends an alertable sleep early, which is not told.
  static void Sleep(unsigned long ms, int alertable);

  // An alertable sleep of one millisecond: a place for an interruption to land
  // in code that otherwise does not wait.
  static void Pause();
};
