// TProcess: a child process. WaitForSingleObject waits for its end, and the platform's
// GetExitCodeProcess gives its exit code.
#pragma once

#include "velt/base/Export.h"
#include "velt/locks/Handle.h"

// Destroying the object closes its handle and leaves the process running. Failed calls
// of the platform throw ESystemException. Not synchronised.
class VELT_API TProcess : public THandle {
public:
  // Starts a program by the platform's rules for command lines. The child gets the
  // caller's environment and current folder, and inherits no handles. The values of
  // `flags` are the platform's. The new handle overwrites the old one, which is not
  // closed; after a failure the handle is unchanged. A narrow command line is passed to
  // the platform without a copy. commandLine must not be null.
  void CreateProcessW(char const* commandLine, unsigned long flags);
  void CreateProcessW(wchar_t const* commandLine, unsigned long flags);

  // Ends the process from outside, and may return before it has ended: wait for that.
  // On an object that has started no process, this ends the calling process, because
  // the platform takes the handle -1 for it.
  void TerminateProcess(int exitCode);
};
