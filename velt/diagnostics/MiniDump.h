// Dump files. All other threads of the process are stopped while one is written.
#pragma once

#include <string>

#include "velt/base/Export.h"

struct _EXCEPTION_POINTERS;

// True if the dump was written and is complete. `pointers` may be null; the dump has
// the exception only if record and context are given. An existing file is replaced.
//
// False if a platform call failed, if a lock that the writer needs stays taken for a
// second, or if the calling thread owns the loader lock. Then an empty file may be
// left behind, open for the life of the process; an incomplete file is deleted.
//
// The other threads are stopped until the dump is written, but for 30 seconds at most.
// Throws what SymInitialize() throws, and ESystemException. EGeneric::SaveMiniDump
// chooses the path itself.
VELT_API bool WriteMiniDump(std::string const& path, _EXCEPTION_POINTERS* pointers,
                            unsigned long type, unsigned long thread_id);
