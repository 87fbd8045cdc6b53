// TOverlapped: a file with one operation that runs beside the program. It is the
// platform's OVERLAPPED record and the file in one.
#pragma once

// Only the record is needed, not the whole of the platform.
#include <windef.h>
#include <minwinbase.h>

#include "velt/base/Export.h"
#include "velt/os/File.h"

template <class File>
class TOverlapped;

// The handle must have been opened for overlapped work (FILE_FLAG_OVERLAPPED);
// it comes in by the constructor or by AttachHandle, for what CreateFileW and
// OpenFile open works while the caller waits, at the record's position.
//
// One operation at a time. While it runs, the object must not be changed, copied
// or destroyed, and the buffer must stay. Each operation works at the record's
// position, which it does not move: SetOffset comes before the next.
//
// A copy has the same four words in its record as its source. It closes the same
// hEvent: after SetEvent an object must not be copied or assigned. Failed
// platform calls throw ESystemException. Not synchronised.
template <>
class VELT_API TOverlapped<TFile> : public OVERLAPPED, public TFile {
public:
  // The record starts as zero: at the beginning of the file, without an event.
  TOverlapped() noexcept : OVERLAPPED{}, TFile(DoNotInitialize) {}
  TOverlapped(_DoNotInitialize const&) noexcept : TOverlapped() {}
  TOverlapped(THandle const& file) : OVERLAPPED{}, TFile(file) {}

  TOverlapped(TOverlapped const&) = default;
  TOverlapped& operator=(TOverlapped const&) = default;

  // Closes the event, then the file. Throws as THandle does.
  ~TOverlapped() noexcept(false);

  // Where the next operation takes place.
  void SetOffset(unsigned __int64 position) noexcept;

  // Has the platform signal a duplicate of `event` at the end of an operation,
  // in place of the file handle; null ends that. The event set before is closed.
  void SetEvent(void* event);

  // Start an operation, which may have ended on return: HasIoCompleted and
  // GetOverlappedResult tell. The count is what it moved so far, so 0 for one
  // that still runs. What fails at once throws here, the rest when its result is
  // asked for; so does, unlike in TFile, reading at the end of the file: code 38.
  unsigned long ReadFile(void* buffer, unsigned long size);
  void ReadFile(void* buffer, unsigned long size, unsigned long& read);
  unsigned long WriteFile(void const* buffer, unsigned long size);
  void WriteFile(void const* buffer, unsigned long size, unsigned long& written);

  // True, and the bytes moved, if the operation has ended well, for which it
  // waits if told to; false if it still runs. An operation that failed throws
  // its code here: 995 if it was cancelled, 109 if the other end of the pipe is
  // closed.
  bool GetOverlappedResult(unsigned long& moved, bool wait);

  // Makes no call. True also before the first operation.
  bool HasIoCompleted() const noexcept;

  // Cancels what the calling thread has started on this handle.
  void CancelIo();
};
