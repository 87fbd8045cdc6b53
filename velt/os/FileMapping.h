// TFileMapping: memory that processes share by name, or a file that is read and
// written as memory.
#pragma once

#include <cstdint>  // __int64

#include "velt/base/Export.h"
#include "velt/locks/Handle.h"

// It owns the mapping, not its views. A view keeps the memory alive by itself,
// and the caller ends it with the platform's UnmapViewOfFile.
//
// Create... and Open... store the new handle over the old one, which they do not
// close; when they fail, they throw ESystemException and the object holds null.
// Protection and access are the platform's numbers. Names follow the platform's
// rules for kernel objects, null makes a mapping without one, and a name that
// exists already opens that mapping. Not synchronised.
class VELT_API TFileMapping : public THandle {
public:
  // Memory of `size` bytes, which starts as zero.
  void CreateFileMappingW(unsigned long protect, unsigned __int64 size, char const* name);
  void CreateFileMappingW(unsigned long protect, unsigned __int64 size, wchar_t const* name);

  // All of the file as it is now, by its handle; an empty one cannot be mapped.
  void CreateFileMappingW(unsigned long protect, void* file, char const* name);
  void CreateFileMappingW(unsigned long protect, void* file, wchar_t const* name);

  void OpenFileMappingW(char const* name, unsigned long access);
  void OpenFileMappingW(wchar_t const* name, unsigned long access);

  // A view of `size` bytes from `offset` on; of all that follows if `size` is 0.
  // The offset must be a multiple of the platform's granularity of allocations,
  // and lies below 4 GiB. Throws ESystemException.
  void* MapViewOfFile(unsigned long access, unsigned long offset, unsigned long size);
};
