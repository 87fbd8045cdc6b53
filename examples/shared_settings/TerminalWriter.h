// Standard output as the end of a debug stream.
#pragma once

#include <string>

#include "examples/typed_values/Terminal.h"
#include "velt/debug/Writers.h"
#include "velt/text/Encoding.h"

// Unlike a TConsoleWriter it also writes where standard output is a pipe. If that
// is closed the stream drops the writer, and others still get their lines.
class TerminalWriter : public TStreamWriter {
public:
  void StreamWriteString(char const* text, unsigned __int64 size) override {
    write(stream::output, as_wstring({text, size}));
  }
};
