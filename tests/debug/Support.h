// Writers and captures for the tests of the debug streams.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

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
    throw std::runtime_error("no paper");
  }

  int calls = 0;
};

// A file name of the test's own; the file goes with the object.
class TemporaryFile {
public:
  TemporaryFile() {
    char folder[MAX_PATH];
    GetTempPathA(MAX_PATH, folder);
    static int count = 0;
    path = folder + ("velt" + std::to_string(GetCurrentProcessId())) + "_" +
           std::to_string(++count) + ".txt";
    DeleteFileA(path.c_str());
  }
  TemporaryFile(TemporaryFile const&) = delete;
  ~TemporaryFile() { DeleteFileA(path.c_str()); }

  char const* name() const { return path.c_str(); }

  std::string bytes() const {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

private:
  std::string path;
};

// What this process sends to the debugger while the object lives.
class DebuggerCapture {
public:
  DebuggerCapture() {
    text().clear();
    handler = AddVectoredExceptionHandler(1, see);
  }
  DebuggerCapture(DebuggerCapture const&) = delete;
  ~DebuggerCapture() { RemoveVectoredExceptionHandler(handler); }

  static std::string& text() {
    static std::string captured;
    return captured;
  }

private:
  static LONG CALLBACK see(EXCEPTION_POINTERS* pointers) {
    constexpr DWORD print_to_debugger = 0x40010006;
    auto const& record = *pointers->ExceptionRecord;
    if (record.ExceptionCode != print_to_debugger) return EXCEPTION_CONTINUE_SEARCH;
    static std::mutex lock;
    std::lock_guard const guard(lock);
    text() += reinterpret_cast<char const*>(record.ExceptionInformation[1]);
    return EXCEPTION_CONTINUE_EXECUTION;
  }

  void* handler;
};

inline std::vector<std::string> lines_of(std::string const& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.ends_with('\r')) line.pop_back();
    lines.push_back(line);
  }
  return lines;
}
