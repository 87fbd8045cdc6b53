// TOverlapped: a file with one asynchronous operation. The object is both the platform's
// OVERLAPPED record and the file.
#pragma once

// Only the record is needed, not all of the platform's headers.
#include <windef.h>
#include <minwinbase.h>

#include "velt/base/Export.h"
#include "velt/os/File.h"

template <class File>
class TOverlapped;

// Pass a handle that was opened with FILE_FLAG_OVERLAPPED to the constructor or to
// AttachHandle. Handles from CreateFileW and OpenFile are synchronous: operations block
// and use the record's position.
//
// An object runs one operation at a time. While it runs, do not change, copy or destroy
// the object, and keep the buffer. An operation takes place at the record's position
// and does not move it: call SetOffset before the next one.
//
// A copy has the same four words in its record as its source, and so closes the same
// hEvent: do not copy or assign an object after SetEvent. Failed calls of the platform
// throw ESystemException. Not synchronised.
template <>
class VELT_API TOverlapped<TFile> : public OVERLAPPED, public TFile {
public:
  // The record is zero at first: the beginning of the file, and no event.
  TOverlapped() noexcept : OVERLAPPED{}, TFile(DoNotInitialize) {}
  TOverlapped(_DoNotInitialize const&) noexcept : TOverlapped() {}
  TOverlapped(THandle const& file) : OVERLAPPED{}, TFile(file) {}

  TOverlapped(TOverlapped const&) = default;
  TOverlapped& operator=(TOverlapped const&) = default;

  // Closes the event, then the file. Throws as the destructor of THandle does.
  ~TOverlapped() noexcept(false);

  // Where the next operation takes place.
  void SetOffset(unsigned __int64 position) noexcept;

  // From now on the platform signals a duplicate of `event` at the end of an operation,
  // instead of the file handle; null ends that. Closes the previous duplicate. Operations
  // that run at once on one file need an event each, or the end of one ends the wait for
  // the others.
  void SetEvent(void* event);

  // These start an operation, which may already have ended on return: ask
  // HasIoCompleted or GetOverlappedResult. The count is the number of bytes moved so
  // far: 0 while the operation runs. An operation that fails at once throws here; one
  // that fails later throws when its result is asked for. Unlike in TFile, reading at
  // the end of the file is a failure: code 38.
  unsigned long ReadFile(void* buffer, unsigned long size);
  void ReadFile(void* buffer, unsigned long size, unsigned long& read);
  unsigned long WriteFile(void const* buffer, unsigned long size);
  void WriteFile(void const* buffer, unsigned long size, unsigned long& written);

  // Returns true and stores the bytes moved if the operation has succeeded; returns
  // false if it is still running. With `wait`, waits for its end first. If the operation
  // failed, throws with its code: 995 if it was cancelled, 109 if the other end of the
  // pipe is closed.
  bool GetOverlappedResult(unsigned long& moved, bool wait);

  // Makes no call of the platform. True before the first operation too.
  bool HasIoCompleted() const noexcept;

  // Cancels all operations that the calling thread has started on this handle.
  void CancelIo();
};
