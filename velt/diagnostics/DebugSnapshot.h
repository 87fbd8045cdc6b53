// What every thread of the process is doing at this moment, as text: for a look
// into a program that hangs.
#pragma once

#include <string>

#include "velt/base/Export.h"

// Stops all other threads, and lets each go on as soon as its stack is walked.
// For each of the first 1024 threads of the process the text has a block,
//
//   Thread 1234: -------------------------------------------------------
//
//   -> outer frame
//   -> inner frame
//
// with up to 64 frames in the form of SymGetStackTrace(); the caller's own stack
// ends in here. Empty without the symbol engine. Threads that begin or end meanwhile
// may be missing.
//
// Any thread may call it, but not from DllMain, and with 40 KB of stack to spare.
// Before it stops threads it waits for the locks of the symbol engine, of the
// environment and of the heaps, and for the loader for 5 seconds at most, if the
// engine is not loaded; what a queued call throws meanwhile passes out. Then it waits
// for nothing that a stopped thread is known to hold. docs/diagnostics.md tells what
// remains, and how a program can be looked into even when its loader hangs.
VELT_API std::string TakeDebugSnapshot();
