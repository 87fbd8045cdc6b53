// TFileWriter: a file that is opened, appended to and closed for every text. It
// is slow, and the file can be read, moved or deleted between any two texts;
// where speed counts, use TPermanentFileWriter.
#pragma once

#include <string>

#include "velt/base/Export.h"
#include "velt/debug/StreamWriter.h"

class VELT_API TFileWriter : public TStreamWriter {
public:
  // Touches no file yet. The name is in the system's ANSI code page.
  explicit TFileWriter(std::string const& fileName) : FileName(fileName) {}

  // Makes the file if it is not there, but no folder. In the run time's text
  // mode: line feeds become carriage return and line feed.
  void StreamWriteString(char const* text, unsigned __int64 size) override;

private:
  std::string FileName;
};
