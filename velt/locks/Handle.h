// THandle: the owner of a kernel handle, with the semantics of a value. A copy
// duplicates the handle, so both refer to one object and each closes its own.
// The classes of the objects themselves derive from it.
#pragma once

#include "velt/base/Export.h"

// Two values mean that no handle is held: all bits set, and null. A handle is
// pointer-sized and named void* here as by the platform.
//
// Where a platform call is said to throw, it throws ESystemException with the
// code of GetLastError, and the object keeps the value that it had at that
// moment. This holds for the destructor too: a handle that somebody else closed
// makes it throw.
//
// No lock of its own: one thread at a time changes an object, while any number
// may wait on it and signal it.
class VELT_API THandle {
public:
  THandle() noexcept : handle(none()) {}

  // Shares the object with the caller, who keeps `h`: a duplicate with the same
  // access, which child processes do not inherit. Throws.
  THandle(void* h);
  THandle(THandle const& other);

  // Throws.
  ~THandle() noexcept(false);

  // Close what is held, then share as the constructors do. Throw. Assignment to
  // self is no exception to the order: it closes the handle and holds none.
  THandle& operator=(void* h);
  THandle& operator=(THandle const& other);

  // Asks the platform whatever is held, so that closing twice shows: Windows
  // refuses null and -1, and the call throws code 6. (-1 is also the platform's
  // name for the process, which some versions let close without effect.)
  void CloseHandle();

  // Closes what is held, then takes `h` over. Throws, and has not taken `h` then.
  void AttachHandle(void* h);

  // Gives the handle up to the caller.
  void* DetachHandle() noexcept;

  bool IsValidHandle() const noexcept { return IsValidHandle(handle); }
  static bool IsValidHandle(void* h) noexcept { return h != none() && h != nullptr; }

  operator void*() const noexcept { return handle; }

  // Waits for `time` milliseconds, 0xFFFFFFFF meaning no limit; queued calls run
  // during the wait if it is alertable. The result is the platform's, its
  // failure throws.
  unsigned long WaitForSingleObject(unsigned long time, int alertable) const;

protected:
  void* handle;

private:
  static void* none() noexcept { return reinterpret_cast<void*>(-1); }

  void close_if_held();
  void share(void* h);
};
