// TFile: a file handle as an object. Each operation is one call of the platform.
// Reads and writes take place at the file's own position and block until they are
// done; for asynchronous operations see TOverlapped.
#pragma once

#include <cstdint>  // __int64

#include "velt/base/DoNotInitialize.h"
#include "velt/base/Export.h"
#include "velt/locks/Handle.h"

struct _BY_HANDLE_FILE_INFORMATION;
struct _FILETIME;

// Copying duplicates the handle, and the copies share one file position. To use a
// handle from elsewhere, such as a pipe or a file opened with other flags, pass it to
// the constructor or to AttachHandle.
//
// Failed calls of the platform throw ESystemException, except in SetFilePointer and
// GetFileSize. The values of `access`, `share`, `disposition` and `method` are the
// platform's. Not synchronised.
class VELT_API TFile : public THandle {
public:
  // No file yet.
  TFile(_DoNotInitialize const&) noexcept {}
  // A duplicate of the handle.
  TFile(THandle const& file) : THandle(file) {}
  // As CreateFileW.
  TFile(char const* name, unsigned long access, unsigned long share, unsigned long disposition);
  TFile(wchar_t const* name, unsigned long access, unsigned long share,
        unsigned long disposition);

  // After a failure the exception has a further value, "FileName". The constructors with
  // a name are the same.
  //
  // Opens or creates a normal file, without further attributes or flags. The new
  // handle overwrites the old one, which is not closed. After a failure the handle
  // is -1.
  void CreateFileW(char const* name, unsigned long access, unsigned long share,
                   unsigned long disposition);
  void CreateFileW(wchar_t const* name, unsigned long access, unsigned long share,
                   unsigned long disposition);

  // The same call under another name. The disposition alone decides whether a file
  // may be created.
  void OpenFile(char const* name, unsigned long access, unsigned long share,
                unsigned long disposition);
  void OpenFile(wchar_t const* name, unsigned long access, unsigned long share,
                unsigned long disposition);

  // These return the number of bytes moved, or store it in the third argument. Reading
  // at the end of the file moves 0 bytes and is not a failure.
  unsigned long ReadFile(void* buffer, unsigned long size);
  void ReadFile(void* buffer, unsigned long size, unsigned long& read);
  unsigned long WriteFile(void const* buffer, unsigned long size);
  void WriteFile(void const* buffer, unsigned long size, unsigned long& written);

  // Never throws. Returns the platform's result unchanged: the lower half of the new
  // position, or 0xFFFFFFFF on failure.
  unsigned long SetFilePointer(long distance, unsigned long method) noexcept;
  // Returns the new position.
  unsigned __int64 SetFilePointerEx(__int64 distance, unsigned long method);

  // Never throws. On failure the lower half of the result is 0xFFFFFFFF.
  unsigned __int64 GetFileSize() const noexcept;
  void GetFileInformation(_BY_HANDLE_FILE_INFORMATION& information) const;
  _FILETIME GetLastWriteTime() const;

  // Returns when all written bytes have reached the device.
  void FlushFile();
};
