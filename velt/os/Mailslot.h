// TMailslot: the end of a mailslot that reads. Any process writes to it, through
// a TFile that is opened by the same name.
#pragma once

#include "velt/base/DoNotInitialize.h"
#include "velt/base/Export.h"
#include "velt/os/Overlapped.h"

// Each read takes one message, for which the buffer must have room. Reads are those
// of TOverlapped: one may still run on return. When the time to wait is over it
// fails with code 121, at once or when its result is asked for.
//
// A name reads "\\.\mailslot\NAME", and no other mailslot of the machine may bear
// it. Times are in milliseconds, 0xFFFFFFFF meaning no limit; a size of 0 lets
// messages be of any size. Throws ESystemException. Not synchronised.
class VELT_API TMailslot : public TOverlapped<TFile> {
public:
  TMailslot(_DoNotInitialize const& tag) noexcept : TOverlapped<TFile>(tag) {}

  // The time that a read waits, then the size of the largest message: the other
  // way round than CreateMailslotW has them.
  TMailslot(char const* name, unsigned long readTimeout, unsigned long maximumSize);
  TMailslot(wchar_t const* name, unsigned long readTimeout, unsigned long maximumSize);

  // The size of the largest message, then the time that a read waits. The new
  // handle is stored over the old one, which is not closed; after a failure it
  // is -1.
  void CreateMailslotW(char const* name, unsigned long maximumSize, unsigned long readTimeout);
  void CreateMailslotW(wchar_t const* name, unsigned long maximumSize, unsigned long readTimeout);
};
