// TDebugWriter: the debugger's output channel, which any debugger and any viewer
// of debug messages shows.
#pragma once

#include "velt/base/Export.h"
#include "velt/debug/StreamWriter.h"

class VELT_API TDebugWriter : public TStreamWriter {
public:
  // The channel takes terminated text: everything up to the first zero byte is
  // written, and `size` is not looked at.
  void StreamWriteString(char const* text, unsigned __int64 size) override;
};
