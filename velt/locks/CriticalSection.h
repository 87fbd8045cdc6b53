// TCriticalSection: the cheapest lock, for the threads of one process. Use another
// lock if waits need a limit, other processes share the lock, or readers run in
// parallel.
#pragma once

#include <windef.h>

#include "velt/locks/Lock.h"

// The platform's critical section as an ILock; the platform's calls accept it as
// it is. Recursive: the owner may lock it again and must unlock it as often. Its
// waits are not alertable. Any thread may call any operation.
class VELT_API TCriticalSection : public _RTL_CRITICAL_SECTION, public ILock {
public:
  TCriticalSection();
  virtual ~TCriticalSection();

  // Copy the platform's record word by word: the copy is an alias of the same
  // state, not a second lock. Use and destroy only one of the two.
  TCriticalSection(TCriticalSection const&) = default;
  TCriticalSection& operator=(TCriticalSection const&) = default;

  // Always throws ENotImplemented, whether the lock is free or not.
  [[nodiscard]] bool Lock(unsigned int timeout) override;
  void Lock() override;
  void Unlock() override;
};
