// What every thread of the process is doing at this moment, as text: for a look
// into a program that hangs.
#pragma once

#include <string>

#include "velt/Export.h"

// Stops all other threads, and lets each go on as soon as its stack is walked.
// For each of the first 1024 threads of the process the text has a block,
//
//   Thread 1234: -------------------------------------------------------
//
//   -> outer frame
//   -> inner frame
//
// with up to 64 frames in the form of SymGetStackTrace(); the caller's own is only
// roughly right. Empty if the symbol engine is not to be had. Threads that begin
// or end meanwhile may be missing.
//
// Any thread may call it, with 24 KB of stack to spare. It waits for the symbol
// engine and for the heap, and to load the engine also for the platform's loader
// lock; what a queued call throws meanwhile passes out. Once threads are stopped
// it waits for nothing that they may hold. A program that must be looked into even
// when a library's loading hangs holds the engine from its start on: see
// SymInitialize().
VELT_API std::string TakeDebugSnapshot();
