// TCriticalSection: the cheapest lock, for the threads of one process. It
// cannot wait with a limit; where that, another process or readers beside one
// another are needed, use one of the other locks.
#pragma once

#include <windef.h>

#include "velt/locks/Lock.h"

// The platform's critical section as an ILock; it may be handed to the
// platform's calls as it is. One thread may lock it again while it holds it,
// and unlocks it as many times. Its waits are not alertable. Safe from any
// thread.
class VELT_API TCriticalSection : public _RTL_CRITICAL_SECTION, public ILock {
public:
  TCriticalSection();
  ~TCriticalSection();

  // Copy the platform's record word by word: an alias of one state, not a
  // second lock. Only one of the two may be used, and only one destroyed.
  TCriticalSection(TCriticalSection const&) = default;
  TCriticalSection& operator=(TCriticalSection const&) = default;

  // Always throws ENotImplemented, whether the lock is free or not.
  [[nodiscard]] bool Lock(unsigned int timeout) override;
  void Lock() override;
  void Unlock() override;
};
