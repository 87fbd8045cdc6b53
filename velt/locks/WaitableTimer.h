// TWaitableTimer: the kernel's timer, for waiting until a moment together with
// other objects. It is no lock; wait through THandle::WaitForSingleObject or
// pass the handle to a wait for several.
#pragma once

#include "velt/base/DoNotInitialize.h"
#include "velt/base/Export.h"
#include "velt/locks/Handle.h"

struct _FILETIME;

// Failed platform calls throw ESystemException, with one exception that is kept:
// making and opening a timer do not notice that the platform failed. The object
// then holds null, IsValidHandle() is false, and the next SetTimer throws. For
// Create... and Open... the rules of TMutex hold otherwise.
class VELT_API TWaitableTimer : public THandle {
public:
  TWaitableTimer(_DoNotInitialize const&) noexcept {}
  // Would make a new timer, with the handle as `manual`.
  TWaitableTimer(void*) = delete;
  // `manual`: stays signalled until it is set again.
  TWaitableTimer(bool manual = true);
  TWaitableTimer(char const* name, bool manual = true);
  TWaitableTimer(wchar_t const* name, bool manual = true);

  void CreateTimer(bool manual);
  void CreateTimer(char const* name, bool manual);
  void CreateTimer(wchar_t const* name, bool manual);
  void OpenTimer(char const* name, unsigned long access);
  void OpenTimer(wchar_t const* name, unsigned long access);

  // Signals in so many milliseconds, and again every `period` milliseconds if
  // that is not 0.
  void SetTimer(unsigned long milliseconds, long period);
  void Set(unsigned long milliseconds, long period) { SetTimer(milliseconds, period); }
  // Signals at a moment, in UTC, once.
  void SetTimer(_FILETIME const& due);
  void Set(_FILETIME const& due) { SetTimer(due); }

  void CancelTimer();
  void Cancel() { CancelTimer(); }

private:
  void store(void* answer);
};
