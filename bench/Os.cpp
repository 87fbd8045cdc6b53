#include <windows.h>

#include "bench/Rows.h"
#include "velt/os/File.h"

namespace bench {
namespace {

char block[4096];

// In the folder for temporary files, and gone with the process.
HANDLE temporary_file(wchar_t const* prefix) {
  wchar_t folder[MAX_PATH], name[MAX_PATH];
  GetTempPathW(MAX_PATH, folder);
  GetTempFileNameW(folder, prefix, 0, name);
  return CreateFileW(name, GENERIC_WRITE | DELETE, 0, nullptr, CREATE_ALWAYS,
                     FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
}

TFile& file() {
  static auto& opened = [] () -> TFile& {
    auto& result = *new TFile(DoNotInitialize);
    result.AttachHandle(temporary_file(L"vlt"));
    return result;
  }();
  return opened;
}

HANDLE raw_file() {
  static HANDLE const opened = temporary_file(L"raw");
  return opened;
}

// Over the same block of the file again and again, so that it does not grow.
void write_block() {
  SetFilePointer(file(), 0, nullptr, FILE_BEGIN);
  keep(file().WriteFile(input(block), sizeof block));
}

void write_block_raw() {
  SetFilePointer(raw_file(), 0, nullptr, FILE_BEGIN);
  DWORD written;
  if (!WriteFile(raw_file(), input(block), sizeof block, &written, nullptr)) abort();
  keep(written);
}

}  // namespace

std::vector<Row> os_rows() {
  return {
      {"file_write", loop([] { write_block(); }),
       {{"WriteFile", 1.02, loop([] { write_block_raw(); })}}},
  };
}

}  // namespace bench
