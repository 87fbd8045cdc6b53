#include "velt/debug/DebugWriter.h"

#include <windows.h>

void TDebugWriter::StreamWriteString(char const* text, unsigned __int64) {
  OutputDebugStringA(text);
}
