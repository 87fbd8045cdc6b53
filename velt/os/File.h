// TFile: a file handle as an object, each operation one platform call. It reads
// and writes at the file's own position and waits until that is done; for
// operations that run beside the program see TOverlapped.
#pragma once

#include <cstdint>  // __int64

#include "velt/base/DoNotInitialize.h"
#include "velt/base/Export.h"
#include "velt/locks/Handle.h"

struct _BY_HANDLE_FILE_INFORMATION;
struct _FILETIME;

// Copying duplicates the handle, and the copies share one file position. A
// handle of another making (a pipe, a file opened with flags of its own) comes
// in by the constructor or by AttachHandle.
//
// Failed platform calls throw ESystemException, but for SetFilePointer and
// GetFileSize. Numbers that open a file (access, share, disposition) and that
// move in it (method) are the platform's. Not synchronised.
class VELT_API TFile : public THandle {
public:
  TFile(_DoNotInitialize const&) noexcept {}
  TFile(THandle const& file) : THandle(file) {}
  // As CreateFileW.
  TFile(char const* name, unsigned long access, unsigned long share, unsigned long disposition);
  TFile(wchar_t const* name, unsigned long access, unsigned long share,
        unsigned long disposition);

  // Opens or makes a normal file, without further attributes or flags. The new
  // handle is stored over the old one, which is not closed; after a failure it
  // is -1.
  void CreateFileW(char const* name, unsigned long access, unsigned long share,
                   unsigned long disposition);
  void CreateFileW(wchar_t const* name, unsigned long access, unsigned long share,
                   unsigned long disposition);

  // The same call under another name: the disposition alone decides whether a
  // file may be made.
  void OpenFile(char const* name, unsigned long access, unsigned long share,
                unsigned long disposition);
  void OpenFile(wchar_t const* name, unsigned long access, unsigned long share,
                unsigned long disposition);

  // Answer the bytes moved. At the end of the file reading moves 0, which is no
  // failure.
  unsigned long ReadFile(void* buffer, unsigned long size);
  void ReadFile(void* buffer, unsigned long size, unsigned long& read);
  unsigned long WriteFile(void const* buffer, unsigned long size);
  void WriteFile(void const* buffer, unsigned long size, unsigned long& written);

  // Never throws: the platform's answer as it is, the lower half of the new
  // position, or 0xFFFFFFFF on failure.
  unsigned long SetFilePointer(long distance, unsigned long method) noexcept;
  // The new position.
  unsigned __int64 SetFilePointerEx(__int64 distance, unsigned long method);

  // Never throws: on failure the lower half is 0xFFFFFFFF.
  unsigned __int64 GetFileSize() const noexcept;
  void GetFileInformation(_BY_HANDLE_FILE_INFORMATION& information) const;
  _FILETIME GetLastWriteTime() const;

  // Returns when what was written has reached the device.
  void FlushFile();
};
