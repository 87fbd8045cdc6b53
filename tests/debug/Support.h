// For the tests of what writes to debug streams.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "tests/support/Imports.h"
#include "velt/debug/Writers.h"

// Keeps every text that it is given.
class RecordingWriter : public TStreamWriter {
public:
  void StreamWriteString(char const* text, unsigned __int64 size) override {
    texts.emplace_back(text, size);
  }
  std::string all() const {
    std::string result;
    for (auto const& each : texts) result += each;
    return result;
  }

  std::vector<std::string> texts;
};

class ThrowingWriter : public TStreamWriter {
public:
  void StreamWriteString(char const*, unsigned __int64) override {
    ++calls;
    throw calls;
  }

  int calls = 0;
};

// Keeps what is sent to the debugger while it lives.
inline auto debugger_capture(std::string& text) {
  auto const keep = [&text](auto, char const* sent) { text += sent; };
  return velt_test::Replacement{VELT_CALL(OutputDebugStringA), keep};
}

