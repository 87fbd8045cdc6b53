// THandle: the owner of a kernel handle, with the semantics of a value. A copy
// duplicates the handle, so both refer to one object and each closes its own.
// The classes of the objects themselves derive from it.
#pragma once

#include "velt/base/Export.h"

// Two values mean that no handle is held: all bits set, and null. A handle is
// pointer-sized and named void* here as by the platform.
//
// Operations marked as throwing throw ESystemException with the code of
// GetLastError if a platform call fails, and the object keeps the value that it
// had at that moment. The destructor throws too, if somebody else has closed the
// handle.
//
// An object has no lock of its own: one thread at a time may change it, while any
// number of threads wait on it and signal it.
class VELT_API THandle {
public:
  THandle() noexcept : handle(none()) {}

  // Shares the object with the caller, who keeps `h`: a duplicate with the same
  // access, which child processes do not inherit. Throws.
  THandle(void* h);
  THandle(THandle const& other);

  // Throws.
  ~THandle() noexcept(false);

  // Close the handle held, then share as the constructors do. Throw. Assignment to
  // self keeps that order, so it closes the handle and holds none.
  THandle& operator=(void* h);
  THandle& operator=(THandle const& other);

  // Hands even null and -1 to the platform, so that closing twice shows: Windows
  // refuses them, and the call throws code 6. (-1 is also the platform's
  // pseudo-handle of the process, which some versions close without effect.)
  void CloseHandle();

  // Closes the handle held, then takes ownership of `h`. If it throws, `h` stays
  // the caller's.
  void AttachHandle(void* h);

  // Gives the handle up to the caller.
  void* DetachHandle() noexcept;

  // Is it neither null nor -1?
  bool IsValidHandle() const noexcept { return IsValidHandle(handle); }
  static bool IsValidHandle(void* h) noexcept { return h != none() && h != nullptr; }

  // The handle, for calls of the platform. It stays this object's.
  operator void*() const noexcept { return handle; }

  // Waits for up to `time` milliseconds, 0xFFFFFFFF meaning no limit. Queued calls
  // run during the wait if it is alertable. Returns the platform's result, or
  // throws if the wait fails.
  unsigned long WaitForSingleObject(unsigned long time, int alertable) const;

protected:
  // -1 or null if there is none.
  void* handle;

private:
  static void* none() noexcept { return reinterpret_cast<void*>(-1); }

  void close_if_held();
  void share(void* h);
};
