// TFileMapping: memory that processes share by name, or a file that is read and written
// as memory.
#pragma once

#include <cstdint>  // __int64

#include "velt/base/Export.h"
#include "velt/locks/Handle.h"

// The object owns the mapping, not its views. A view keeps the memory alive by itself;
// the caller ends it with the platform's UnmapViewOfFile.
//
// In CreateFileMappingW and OpenFileMappingW the new handle overwrites the old one,
// which is not closed. If they fail, they throw ESystemException and the object holds
// null. The values of `protect` and `access` are the platform's. Names follow the
// platform's rules for kernel objects: null creates a mapping without a name, and a
// name that already exists opens that mapping. Not synchronised.
class VELT_API TFileMapping : public THandle {
public:
  // Memory of `size` bytes, filled with zeros.
  void CreateFileMappingW(unsigned long protect, unsigned __int64 size, char const* name);
  void CreateFileMappingW(unsigned long protect, unsigned __int64 size, wchar_t const* name);

  // The whole file behind the handle, at its present size. An empty file cannot be
  // mapped.
  void CreateFileMappingW(unsigned long protect, void* file, char const* name);
  void CreateFileMappingW(unsigned long protect, void* file, wchar_t const* name);

  // An existing mapping of that name.
  void OpenFileMappingW(char const* name, unsigned long access);
  void OpenFileMappingW(wchar_t const* name, unsigned long access);

  // Returns a view of `size` bytes from `offset` on, or of the whole rest if `size`
  // is 0. The offset must be a multiple of the platform's allocation granularity; it
  // is always below 4 GiB. Throws ESystemException.
  void* MapViewOfFile(unsigned long access, unsigned long offset, unsigned long size);
};
