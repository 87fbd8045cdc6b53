// TMutex: the kernel's mutex as a lock. It can be waited for with a limit, be
// shared between processes by name, and survives an owner that dies; where none
// of this is needed, TCriticalSection is far cheaper.
#pragma once

#include "velt/base/DoNotInitialize.h"
#include "velt/base/Export.h"
#include "velt/locks/Handle.h"
#include "velt/locks/Lock.h"

// Recursive: the owner may lock it again and unlocks it as often. An abandoned
// mutex, whose owner ended without unlocking, counts as acquired without a
// report. Failed platform calls throw ESystemException.
//
// Create... and Open... store the new handle over the old one, which they do not
// close: they are for objects made with DoNotInitialize. When they fail, the
// object holds null. Names follow the platform's rules for kernel objects; a
// name that exists already opens that object.
class VELT_API TMutex : public THandle, public ILock {
public:
  TMutex(_DoNotInitialize const&) noexcept {}
  // Not owned by the caller at first.
  TMutex();
  TMutex(char const* name);
  TMutex(wchar_t const* name);

  // `owner`: the caller holds it from the start, if the call made it.
  void CreateMutexW(bool owner);
  void CreateMutexW(char const* name, bool owner);
  void CreateMutexW(wchar_t const* name, bool owner);
  void OpenMutexW(char const* name, unsigned long access);
  void OpenMutexW(wchar_t const* name, unsigned long access);

  void ReleaseMutex();

  // One alertable wait: false when the time ran out, and also when a queued
  // call ended the wait.
  [[nodiscard]] bool Lock(unsigned int timeout) override;
  // Alertable, and resumed after queued calls.
  void Lock() override;
  void Unlock() override;
};
