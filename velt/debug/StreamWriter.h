// TStreamWriter: where the text of a debug stream ends up. The library has four
// writers, DebugWriter.h, ConsoleWriter.h, FileWriter.h and PermanentFileWriter.h;
// derive from it for another.
#pragma once

#include "velt/base/Export.h"
#include "velt/base/SmartPtr.h"

// A counted object that streams hold by SmartPtr. A writer has no lock of its
// own: a stream calls it from one thread at a time, but two streams may call a
// writer that they share at once.
//
// The library's own writers report no failure: what cannot be written is lost,
// since logging must not disturb the program. Only std::bad_alloc comes out of
// them.
class VELT_API TStreamWriter : public virtual SmartPtrObj {
public:
  TStreamWriter() noexcept = default;
  TStreamWriter(TStreamWriter const&) noexcept = default;
  TStreamWriter& operator=(TStreamWriter const&) noexcept = default;
  ~TStreamWriter() override;

  // `text` is not null, and `size` is its length in bytes, not 0. Streams pass
  // text on as they are given it, so the byte behind it is readable and zero
  // only if the stream's client saw to that. Whatever is thrown from here makes
  // the stream drop the writer.
  virtual void StreamWriteString(char const* text, unsigned __int64 size) = 0;
};
