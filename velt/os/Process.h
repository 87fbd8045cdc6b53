// TProcess: a child process. WaitForSingleObject waits for its end, and the
// platform's GetExitCodeProcess tells how it ended.
#pragma once

#include "velt/base/Export.h"
#include "velt/locks/Handle.h"

// Destroying the object closes its handle, and the process goes on. Failed
// platform calls throw ESystemException. Not synchronised.
class VELT_API TProcess : public THandle {
public:
  // Starts a program, by the platform's rules for command lines, with the
  // caller's environment and current folder and without inherited handles. Flags
  // are the platform's. The new handle is stored over the old one, which is not
  // closed; after a failure it is as it was. Narrow text goes to the platform as
  // it stands. A null command line must not be.
  void CreateProcessW(char const* commandLine, unsigned long flags);
  void CreateProcessW(wchar_t const* commandLine, unsigned long flags);

  // Ends it from outside. May return before it has ended: wait for that. On an
  // object that has started none this ends the caller, whom -1 stands for.
  void TerminateProcess(int exitCode);
};
