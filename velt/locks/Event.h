// TEvent: the kernel's event, on which one thread waits until another signals.
#pragma once

#include "velt/base/DoNotInitialize.h"
#include "velt/base/Export.h"
#include "velt/locks/Handle.h"

// A manual event stays signalled until it is reset; the other kind lets one
// waiter through and resets itself. Failed platform calls throw
// ESystemException. For Create... and Open... the rules of TMutex hold, with one
// difference: a new named event grants every user full access.
class VELT_API TEvent : public THandle {
public:
  // No event yet: call CreateEventW or OpenEventW.
  TEvent(_DoNotInitialize const&) noexcept {}
  // Would make a new event, with the handle as `manual`.
  TEvent(void*, bool = false) = delete;
  TEvent(bool manual = true, bool initial = false);
  TEvent(char const* name, bool manual = true, bool initial = false);
  TEvent(wchar_t const* name, bool manual = true, bool initial = false);

  // Store the handle of a new event, signalled at first if `initial`, or of an existing one.
  void CreateEventW(bool manual, bool initial);
  void CreateEventW(bool manual, bool initial, char const* name);
  void CreateEventW(bool manual, bool initial, wchar_t const* name);
  void OpenEventW(char const* name, unsigned long access);
  void OpenEventW(wchar_t const* name, unsigned long access);

  // Each operation has two names.
  void SetEvent();
  void Set() { SetEvent(); }
  void ResetEvent();
  void Reset() { ResetEvent(); }
  void PulseEvent();
  void Pulse() { PulseEvent(); }

  // One alertable wait of `time` milliseconds, -1 meaning no limit: false when
  // the time ran out, and also when a queued call ended the wait.
  bool Signaled(int time) const;
  // Alertable, and resumed after queued calls.
  void WaitForSignal() const;
};
