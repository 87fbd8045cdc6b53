// TThread: the owner of a thread's handle, with the platform's operations on
// threads. For a thread that is an object of its own, and that can be
// interrupted, derive from TThreadClass; to run some work on another thread,
// std::jthread is the simpler choice.
#pragma once

#include <cstdint>  // __int64

#include "velt/base/DoNotInitialize.h"
#include "velt/base/Export.h"
#include "velt/locks/Handle.h"

// The handle is kept as by THandle: a copy refers to the same thread, and the
// destructor closes the handle and leaves the thread alone. Each operation is the
// platform's call of the same name, and throws ESystemException if that fails. It
// may act on any thread, the calling one included.
class VELT_API TThread : public THandle {
public:
  // As the run-time library wants it; the result is the exit code.
  using thread_entry = unsigned int (*)(void* argument);

  // No thread.
  TThread(_DoNotInitialize const&) noexcept {}
  // Starts a thread with the program's default stack size.
  TThread(thread_entry entry, void* argument);

  // Starts a thread with a stack of that many bytes; 0 means the default. The new
  // handle overwrites the one held, which is not closed.
  void CreateThread(thread_entry entry, void* argument, unsigned long stackSize);

  // One of the platform's THREAD_PRIORITY_... values.
  void SetThreadPriority(int priority);

  // Sets the priority to 1 for true and to 0 for false, and leaves the boost as it
  // is.
  void DisableThreadPriorityBoost(bool disable);

  // Ends the thread between any two instructions: nothing is unwound, and its
  // locks stay taken. docs/threads.md tells what is left behind.
  void TerminateThread(unsigned long code);

  // Null takes the thread's token away.
  void SetThreadToken(void* token);

  // Count: a thread runs when it has been resumed as often as suspended.
  void SuspendThread();
  void ResumeThread();

  // The routine runs on the thread in its next alertable wait.
  void QueueUserAPC(void (*routine)(unsigned __int64), unsigned __int64 argument);

  // Waits `ms` milliseconds; 0xFFFFFFFF means for ever. A queued call ends an
  // alertable sleep early, without notice.
  static void Sleep(unsigned long ms, int alertable);

  // An alertable sleep of one millisecond: lets an interruption in where code does
  // not wait otherwise.
  static void Pause();
};
