// TConsoleWriter: the process's console. It writes to a console only: standard
// output that was redirected to a file or a pipe gets nothing.
#pragma once

#include "velt/base/Export.h"
#include "velt/debug/StreamWriter.h"

class VELT_API TConsoleWriter : public TStreamWriter {
public:
  // Keeps the handle that is standard output at this moment, whatever it is;
  // with `allocate`, the process is given a console before if it has none. The
  // handle is not owned.
  explicit TConsoleWriter(bool allocate);

  // Converts from the ANSI to the OEM code page, up to the first zero byte.
  void StreamWriteString(char const* text, unsigned __int64 size) override;

private:
  void* Console;
};
