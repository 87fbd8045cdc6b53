#include "velt/debug/FileWriter.h"

#include <stdio.h>

void TFileWriter::StreamWriteString(char const* text, unsigned __int64 size) {
  FILE* file = nullptr;
  if (fopen_s(&file, FileName.c_str(), "a+") != 0) return;
  fwrite(text, size, 1, file);
  fclose(file);
}
