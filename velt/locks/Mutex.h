// TMutex: the kernel's mutex as a lock. Waits can have a limit, processes can share
// it by name, and it survives an owner that dies. If none of this is needed,
// TCriticalSection is far cheaper.
#pragma once

#include "velt/base/DoNotInitialize.h"
#include "velt/base/Export.h"
#include "velt/locks/Handle.h"
#include "velt/locks/Lock.h"

// Recursive: the owner may lock it again and must unlock it as often. If the owner
// ended without unlocking, the next wait acquires the mutex and does not report
// that. Failed platform calls throw ESystemException.
//
// Create... and Open... are for objects made with DoNotInitialize: they store the
// new handle over the old one without closing that. When they fail, the object
// holds null. Names follow the platform's rules for kernel objects; Create... with
// a name that exists opens that object.
class VELT_API TMutex : public THandle, public ILock {
public:
  // No mutex yet: call CreateMutexW or OpenMutexW.
  TMutex(_DoNotInitialize const&) noexcept {}
  // Not owned by the caller at first.
  TMutex();
  TMutex(char const* name);
  TMutex(wchar_t const* name);
  TMutex(TMutex const&) = default;
  TMutex& operator=(TMutex const&) = default;
  virtual ~TMutex() noexcept(false) {}

  // `owner`: if the call made a new mutex, the caller owns it.
  void CreateMutexW(bool owner);
  void CreateMutexW(char const* name, bool owner);
  void CreateMutexW(wchar_t const* name, bool owner);
  void OpenMutexW(char const* name, unsigned long access);
  void OpenMutexW(wchar_t const* name, unsigned long access);

  // Ends one hold of the calling thread; Unlock() does the same.
  void ReleaseMutex();

  // One alertable wait: false when the time ran out, and also when a queued
  // call ended the wait.
  [[nodiscard]] bool Lock(unsigned int timeout) override;
  // Alertable, and resumed after queued calls.
  void Lock() override;
  void Unlock() override;
};
