// Dump files. The platform's writer stops the other threads; so every lock that
// it needs is owned before, or the dump is given up.
#pragma once

#include <string>

#include "velt/base/Export.h"

struct _EXCEPTION_POINTERS;

// True if the dump was written; `pointers` may be null. False if a platform call
// failed or a lock that the writer needs was not to be had: an empty file may
// stay behind then, open for the life of the process. Throws what SymInitialize
// may. EGeneric::SaveMiniDump chooses the path.
VELT_API bool WriteMiniDump(std::string const& path, _EXCEPTION_POINTERS* pointers,
                            unsigned long type, unsigned long thread_id);
