// Tuning of the process's heaps, done when the library is loaded.
#pragma once

#include "velt/base/Export.h"

// One object of the library's own does its work; clients need none. Nothing
// fails: what the platform does not offer is left out.
class VELT_API MemoryOptimizer {
public:
  // Asks for the low-fragmentation heap, for the process's heap and the run
  // time's, if IsActualVersion(), and turns off the small-block heap of an
  // msvcrt that is in the process already.
  MemoryOptimizer();

  // Is the system of the NT family, and newer than version 5.0?
  static bool IsActualVersion();
};
