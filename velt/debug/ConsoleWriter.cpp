#include "velt/debug/ConsoleWriter.h"

#include <windows.h>

#include <string>

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
