// IBoundsChecker: what a checker of memory bounds offers.
#pragma once

#include <cstddef>

#include "velt/base/Export.h"
#include "velt/base/SmartPtr.h"

// The library has none and calls none: this is the interface on which a program
// and its checker agree. Held by SmartPtr. Whether threads may share a checker is
// for the checker to say.
class VELT_API IBoundsChecker : public virtual SmartPtrObj {
public:
  IBoundsChecker();
  IBoundsChecker(IBoundsChecker const& other);
  IBoundsChecker& operator=(IBoundsChecker const& other);
  ~IBoundsChecker() noexcept override;

  // From now on the block may be used, and no longer.
  virtual void BlockAllocated(void const* block, std::size_t size) = 0;
  virtual void BlockFreed(void const* block) = 0;

  // Do all of the bytes lie in one block that may be used?
  virtual bool IsInBounds(void const* address, std::size_t size) const = 0;
};
