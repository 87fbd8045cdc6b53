// TMailslot: the reading end of a mailslot. Any process may write to it, through a TFile
// opened by the same name.
#pragma once

#include "velt/base/DoNotInitialize.h"
#include "velt/base/Export.h"
#include "velt/os/Overlapped.h"

// Each read takes one message, and the buffer must have room for all of it. Reads are
// those of TOverlapped: a read may still be running when ReadFile returns. If no
// message arrives within the time-out, the read fails with code 121, either at once
// or when its result is asked for.
//
// A name has the form "\\.\mailslot\NAME" and must be unique on the machine. Times are
// in milliseconds, and 0xFFFFFFFF means no limit. Sizes are in bytes, and 0 allows
// messages of any size. Throws ESystemException. Not synchronised.
class VELT_API TMailslot : public TOverlapped<TFile> {
public:
  // No mailslot yet: call CreateMailslotW.
  TMailslot(_DoNotInitialize const& tag) noexcept : TOverlapped<TFile>(tag) {}

  // The read time-out, then the maximum message size. CreateMailslotW takes them in the
  // opposite order.
  TMailslot(char const* name, unsigned long readTimeout, unsigned long maximumSize);
  TMailslot(wchar_t const* name, unsigned long readTimeout, unsigned long maximumSize);

  // The maximum message size, then the read time-out. The new handle overwrites the old
  // one, which is not closed. After a failure the handle is -1.
  void CreateMailslotW(char const* name, unsigned long maximumSize, unsigned long readTimeout);
  void CreateMailslotW(wchar_t const* name, unsigned long maximumSize, unsigned long readTimeout);
};
