// The stacks of all threads of the process as text, to inspect a program that hangs.
#pragma once

#include <string>

#include "velt/base/Export.h"

// Stops all other threads, and resumes each as soon as its stack is walked. For each
// of the first 1024 threads of the process the text has a block,
//
//   Thread 1234: -------------------------------------------------------
//
//   -> outer frame
//   -> inner frame
//
// with up to 64 frames in the form of SymGetStackTrace(); the caller's own stack
// ends in this function. Empty without the symbol engine. Threads that begin or end
// meanwhile may be missing.
//
// Any thread may call it, but not from DllMain, and with 40 KB of stack to spare.
// Before it stops threads it waits for the locks of the symbol engine and the heaps,
// and for that of the environment where the platform cannot try it. If the engine is
// not loaded, it also waits up to 5 seconds for the loader lock. Throws what a queued
// call throws during these waits. Afterwards it waits for no lock that a stopped
// thread is known to hold. docs/diagnostics.md lists the remaining risks, and how to
// get a snapshot even when the program's loader hangs.
VELT_API std::string TakeDebugSnapshot();
