// A file for one test.
#pragma once

#include <windows.h>

#include <string>

namespace velt_test {

// The name of a file that does not exist, in the folder for such; the file, if
// one was made, goes with the object.
class ScratchFile {
public:
  ScratchFile() {
    wchar_t folder[MAX_PATH], path[MAX_PATH];
    GetTempPathW(MAX_PATH, folder);
    GetTempFileNameW(folder, L"vlt", 0, path);
    wide = path;
    narrow.assign(wide.begin(), wide.end());
    DeleteFileW(path);
  }
  ~ScratchFile() { DeleteFileW(wide.c_str()); }
  ScratchFile(ScratchFile const&) = delete;

  std::wstring wide;
  std::string narrow;
};

}  // namespace velt_test
