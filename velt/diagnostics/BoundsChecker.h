// IBoundsChecker: an interface for checkers of memory bounds.
#pragma once

#include <cstddef>

#include "velt/base/Export.h"
#include "velt/base/SmartPtr.h"

// The library implements and calls no checker: this is the interface between a
// program and its checker. Held by SmartPtr. Each checker defines whether threads may
// share it.
class VELT_API IBoundsChecker : public virtual SmartPtrObj {
public:
  IBoundsChecker();
  // Copies are SmartPtrObj's.
  IBoundsChecker(IBoundsChecker const& other);
  IBoundsChecker& operator=(IBoundsChecker const& other);
  ~IBoundsChecker() override;

  // Called when the block becomes usable, and when it no longer is.
  virtual void BlockAllocated(void const* block, std::size_t size) = 0;
  virtual void BlockFreed(void const* block) = 0;

  // Do all of the bytes lie in one usable block?
  virtual bool IsInBounds(void const* address, std::size_t size) const = 0;
};
