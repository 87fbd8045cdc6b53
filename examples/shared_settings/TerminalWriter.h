// A writer that sends the text of a debug stream to standard output.
#pragma once

#include <string>

#include "examples/typed_values/Terminal.h"
#include "velt/debug/Writers.h"
#include "velt/text/Encoding.h"

// Unlike a TConsoleWriter, it also writes to a pipe. If the pipe is closed, the stream
// drops this writer, and the other writers still get the text.
class TerminalWriter : public TStreamWriter {
public:
  void StreamWriteString(char const* text, unsigned __int64 size) override {
    write(stream::output, as_wstring({text, size}));
  }
};
