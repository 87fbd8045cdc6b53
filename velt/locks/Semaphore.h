// TSemaphore: the kernel's counting semaphore, as a lock that several threads,
// or processes, may hold at once.
#pragma once

#include "velt/base/DoNotInitialize.h"
#include "velt/base/Export.h"
#include "velt/locks/Handle.h"
#include "velt/locks/Lock.h"

// Lock takes one from the count and Unlock gives one back; any thread may do
// either. Failed platform calls throw ESystemException. For Create... and
// Open... the rules of TMutex hold.
class VELT_API TSemaphore : public THandle, public ILock {
public:
  // No semaphore yet: call CreateSemaphoreW or OpenSemaphoreW.
  TSemaphore(_DoNotInitialize const&) noexcept {}
  // Unnamed; `count` is both the maximum and the initial count.
  TSemaphore(int count);
  // The maximum stands first.
  TSemaphore(int maximum, int initial);
  TSemaphore(char const* name, int maximum, int initial);
  TSemaphore(wchar_t const* name, int maximum, int initial);
  TSemaphore(TSemaphore const&) = default;
  TSemaphore& operator=(TSemaphore const&) = default;
  virtual ~TSemaphore() noexcept(false) {}

  // Store the handle of a new semaphore or of an existing one.
  void CreateSemaphoreW(long maximum, long initial);
  void CreateSemaphoreW(long maximum, long initial, char const* name);
  void CreateSemaphoreW(long maximum, long initial, wchar_t const* name);
  void OpenSemaphoreW(char const* name, unsigned long access);
  void OpenSemaphoreW(wchar_t const* name, unsigned long access);

  // Adds to the count and returns the count before. If the sum would exceed the
  // maximum, throws and adds nothing.
  long ReleaseSemaphore(long count);

  // One alertable wait: false when the time ran out, and also when a queued
  // call ended the wait.
  [[nodiscard]] bool Lock(unsigned int timeout) override;
  // Alertable, and resumed after queued calls.
  void Lock() override;
  void Unlock() override;
};
