#include "velt/debug/Writers.h"

#include <stdio.h>
#include <windows.h>

#include <algorithm>

#include "velt/text/Encoding.h"

namespace {

HANDLE open_for_appending(auto create_file, auto file_name) {
  return create_file(file_name, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                     OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
}

std::string with_carriage_returns(char const* text, unsigned __int64 size) {
  std::string result;
  result.reserve(size + static_cast<std::size_t>(std::count(text, text + size, '\n')));
  for (char const* each = text; each != text + size; ++each) {
    if (*each == '\n') result += '\r';
    result += *each;
  }
  return result;
}

}  // namespace

TStreamWriter::~TStreamWriter() = default;

void TDebugWriter::StreamWriteString(char const* text, unsigned __int64) {
  OutputDebugStringA(text);
}

TConsoleWriter::TConsoleWriter(bool allocate) {
  if (allocate) AllocConsole();
  Console = GetStdHandle(STD_OUTPUT_HANDLE);
}

void TConsoleWriter::StreamWriteString(char const* text, unsigned __int64 size) {
  std::string converted(text, size);
  CharToOemA(converted.c_str(), converted.data());
  DWORD written = 0;
  WriteConsoleA(Console, converted.data(), static_cast<DWORD>(converted.size()), &written, nullptr);
}

TStandardWriter::TStandardWriter(standard_stream which)
    : Standard(GetStdHandle(which == Error ? STD_ERROR_HANDLE : STD_OUTPUT_HANDLE)) {
  DWORD mode = 0;
  IsConsole = GetConsoleMode(Standard, &mode);
}

void TStandardWriter::StreamWriteString(char const* text, unsigned __int64 size) {
  DWORD written = 0;
  if (IsConsole) {
    auto const wide = as_wstring({text, size});
    WriteConsoleW(Standard, wide.data(), static_cast<DWORD>(wide.size()), &written, nullptr);
  } else {
    auto const lines = with_carriage_returns(text, size);
    WriteFile(Standard, lines.data(), static_cast<DWORD>(lines.size()), &written, nullptr);
  }
}

void TFileWriter::StreamWriteString(char const* text, unsigned __int64 size) {
  FILE* opened = nullptr;
  if (fopen_s(&opened, FileName.c_str(), "a+") != 0) return;
  fwrite(text, size, 1, opened);
  fclose(opened);
}

TPermanentFileWriter::TPermanentFileWriter(char const* fileName)
    : TPermanentFileWriter(open_for_appending(CreateFileA, fileName)) {}

TPermanentFileWriter::TPermanentFileWriter(wchar_t const* fileName)
    : TPermanentFileWriter(open_for_appending(CreateFileW, fileName)) {}

TPermanentFileWriter::TPermanentFileWriter(void* opened) noexcept
    : File(opened == INVALID_HANDLE_VALUE ? nullptr : opened) {
  if (File) SetFilePointer(File, 0, nullptr, FILE_END);
}

TPermanentFileWriter::~TPermanentFileWriter() {
  if (File) CloseHandle(File);
}

void TPermanentFileWriter::StreamWriteString(char const* text, unsigned __int64 size) {
  if (!File) return;
  auto const lines = with_carriage_returns(text, size);
  DWORD written = 0;
  WriteFile(File, lines.data(), static_cast<DWORD>(lines.size()), &written, nullptr);
}
