// The writers of debug streams: where the text goes.
//
//   TDebugWriter          the debugger
//   TConsoleWriter        the console of the process
//   TStandardWriter       standard output or standard error, wherever it leads
//   TFileWriter           a file that is opened and closed for each text
//   TPermanentFileWriter  a file that stays open
//
// To send text anywhere else, derive from TStreamWriter.
#pragma once

#include <string>

#include "velt/base/Export.h"
#include "velt/base/SmartPtr.h"

// A counted object that streams hold by SmartPtr. A writer has no lock of its own:
// a stream calls it from one thread at a time, but two streams that share a writer
// may call it at the same time.
//
// Logging must not disturb the program, so the library's own writers report no
// failure: text that cannot be written is lost. They throw std::bad_alloc only.
class VELT_API TStreamWriter : public virtual SmartPtrObj {
public:
  TStreamWriter() noexcept = default;
  TStreamWriter(TStreamWriter const&) noexcept = default;
  TStreamWriter& operator=(TStreamWriter const&) noexcept = default;
  ~TStreamWriter() override;

  // `text` is never null, and `size`, its length in bytes, is never 0. A stream
  // passes text on as it came, so the byte behind it is readable and zero only if
  // the stream's caller provided that byte. A stream drops a writer that throws.
  virtual void StreamWriteString(char const* text, unsigned __int64 size) = 0;
};

// The debugger's output channel. Any debugger shows it, and so does any viewer of
// debug messages.
class VELT_API TDebugWriter : public TStreamWriter {
public:
  // The channel takes terminated text: writes up to the first zero byte and ignores
  // `size`.
  void StreamWriteString(char const* text, unsigned __int64 size) override;
};

// The console of the process. Writes to a console only: if standard output is
// redirected to a file or a pipe, the text is lost.
class VELT_API TConsoleWriter : public TStreamWriter {
public:
  // Uses whatever handle is standard output at this moment, and does not own it.
  // With `allocate`, first gives the process a console if it has none.
  explicit TConsoleWriter(bool allocate);

  // Converts the text from the ANSI to the OEM code page, up to the first zero byte.
  void StreamWriteString(char const* text, unsigned __int64 size) override;

private:
  void* Console;
};

// Standard output or standard error: a console, a file, a pipe, or any other handle
// that the program was started with.
class VELT_API TStandardWriter : public TStreamWriter {
public:
  // Which of the two.
  enum standard_stream { Output, Error };

  // Uses the handle of this moment, and does not own it. If there is none, as in most
  // programs with windows, the writer discards all text.
  explicit TStandardWriter(standard_stream which = Output);

  // To a console in UTF-16; to anything else the bytes, with carriage return and line
  // feed for each line feed, as printf writes them. Passes by the buffers of printf and
  // std::cout: flush those first.
  void StreamWriteString(char const* text, unsigned __int64 size) override;

private:
  void* Standard;
  bool IsConsole;
};

// A file that is opened, appended to and closed for every text. It can be read,
// moved or deleted between any two texts, but writing is slow; where speed counts,
// use TPermanentFileWriter.
class VELT_API TFileWriter : public TStreamWriter {
public:
  // Touches no file yet. The name is in the system's ANSI code page.
  explicit TFileWriter(std::string const& fileName) : FileName(fileName) {}

  // Creates the file if it does not exist, but no folder. Writes in the run time's
  // text mode: a line feed becomes carriage return and line feed.
  void StreamWriteString(char const* text, unsigned __int64 size) override;

private:
  std::string FileName;
};

// A file that stays open and is appended to. Other programs may read and delete it
// meanwhile, but not write to it. No flush, no rotation, no limit of size.
//
// A copy shares the handle with its source, and the first of the two to be destroyed
// closes it for both.
class VELT_API TPermanentFileWriter : public TStreamWriter {
public:
  // Opens the file or creates it, and keeps what it already holds. If that fails,
  // the writer discards all text.
  explicit TPermanentFileWriter(char const* fileName);
  explicit TPermanentFileWriter(wchar_t const* fileName);
  TPermanentFileWriter(TPermanentFileWriter const&) noexcept = default;
  TPermanentFileWriter& operator=(TPermanentFileWriter const&) noexcept = default;
  ~TPermanentFileWriter() override;

  // Writes carriage return and line feed for each line feed, even for one that
  // follows a carriage return. One platform call for each text.
  void StreamWriteString(char const* text, unsigned __int64 size) override;

private:
  explicit TPermanentFileWriter(void* opened) noexcept;

  void* File;  // null if the file could not be opened
};
