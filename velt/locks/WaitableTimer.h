// TWaitableTimer: the kernel's timer, to wait for a moment alone or together with
// other objects. It is no lock: wait through THandle::WaitForSingleObject, or pass
// the handle to a wait for several objects.
#pragma once

#include "velt/base/DoNotInitialize.h"
#include "velt/base/Export.h"
#include "velt/locks/Handle.h"

struct _FILETIME;

// Failed platform calls throw ESystemException, except for Create... and Open...:
// they do not notice a failure. The object then holds null, IsValidHandle() is
// false, and the next SetTimer throws. Otherwise the rules of TMutex hold for
// them.
class VELT_API TWaitableTimer : public THandle {
public:
  // No timer yet: call CreateTimer or OpenTimer.
  TWaitableTimer(_DoNotInitialize const&) noexcept {}
  // Would make a new timer, with the handle as `manual`.
  TWaitableTimer(void*) = delete;
  // `manual`: stays signalled until it is set again.
  TWaitableTimer(bool manual = true);
  TWaitableTimer(char const* name, bool manual = true);
  TWaitableTimer(wchar_t const* name, bool manual = true);

  // Store the handle of a new timer or of an existing one.
  void CreateTimer(bool manual);
  void CreateTimer(char const* name, bool manual);
  void CreateTimer(wchar_t const* name, bool manual);
  void OpenTimer(char const* name, unsigned long access);
  void OpenTimer(wchar_t const* name, unsigned long access);

  // Signals after so many milliseconds, and then every `period` milliseconds unless
  // that is 0.
  void SetTimer(unsigned long milliseconds, long period);
  void Set(unsigned long milliseconds, long period) { SetTimer(milliseconds, period); }
  // Signals once, at a moment in UTC.
  void SetTimer(_FILETIME const& due);
  void Set(_FILETIME const& due) { SetTimer(due); }

  // The timer does not signal until it is set again. Its state stays.
  void CancelTimer();
  void Cancel() { CancelTimer(); }

private:
  void store(void* answer);
};
