// Tuning of the process's heaps, done when the library is loaded.
#pragma once

#include "velt/base/Export.h"

// The library has one object of its own; clients need none. Nothing fails: features
// that the platform lacks are skipped.
class VELT_API MemoryOptimizer {
public:
  // If IsActualVersion(), turns on the low-fragmentation heap for the process's heap
  // and the run time's. Turns off the small-block heap of an msvcrt that is already
  // in the process.
  MemoryOptimizer();

  // Is the system of the NT family, and newer than version 5.0?
  static bool IsActualVersion();
};
