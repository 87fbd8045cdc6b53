// TPermanentFileWriter: a file that stays open and is appended to. Others may
// read and delete it meanwhile, but not write to it.
#pragma once

#include "velt/base/Export.h"
#include "velt/debug/StreamWriter.h"

// No flush, no rotation, no limit of size. A copy shares the handle with its
// source, and whichever of the two is destroyed first closes it for both.
class VELT_API TPermanentFileWriter : public TStreamWriter {
public:
  // Opens the file, or makes it; what it holds already is kept. If that fails,
  // the writer swallows everything.
  explicit TPermanentFileWriter(char const* fileName);
  explicit TPermanentFileWriter(wchar_t const* fileName);
  TPermanentFileWriter(TPermanentFileWriter const&) noexcept = default;
  TPermanentFileWriter& operator=(TPermanentFileWriter const&) noexcept = default;
  ~TPermanentFileWriter() override;

  // Each line feed becomes carriage return and line feed, also behind a carriage
  // return. One platform call for one text.
  void StreamWriteString(char const* text, unsigned __int64 size) override;

private:
  explicit TPermanentFileWriter(void* opened) noexcept;

  void* File;  // null if the file could not be opened
};
