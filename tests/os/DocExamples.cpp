// The examples of docs/os.md, run.
#include <gtest/gtest.h>
#include <windows.h>

#include <comdef.h>
#include <winspool.h>

#include <algorithm>
#include <sstream>
#include <string>

#include "tests/os/ScratchFile.h"
#include "tests/os/ScratchPrinter.h"
#include "tests/support/DocExamples.h"
#include "velt/os/CoInitialize.h"
#include "velt/os/ComFileStream.h"
#include "velt/os/ComStringStream.h"
#include "velt/os/File.h"
#include "velt/os/FileMapping.h"
#include "velt/os/ImpersonationContext.h"
#include "velt/os/Mailslot.h"
#include "velt/os/Overlapped.h"
#include "velt/os/Printer.h"
#include "velt/os/Process.h"

namespace {

std::string first_line(wchar_t const* name) {
  TFile file(name, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING);
  std::string line;
  char c;
  while (file.ReadFile(&c, 1) == 1 && c != '\n') line += c;
  return line;
}

bool read_header(void* handle, char (&header)[64]) {
  TOverlapped<TFile> file(handle);
  file.SetOffset(0);
  file.ReadFile(header, sizeof header);

  unsigned long read = 0;
  while (!file.GetOverlappedResult(read, false)) Sleep(1);  // or do something useful
  return read == sizeof header;
}

std::wstring port_of(wchar_t const* name) {
  TPrinter const printer(name, PRINTER_ACCESS_USE);
  AutoPtr<PRINTER_INFO_2W> info;
  printer.GetPrinterInfo(info);
  return info->pPortName;
}

void serve(void (*work)()) {
  class CoInitializeEx const apartment;
  CImpersonationContext const client(CImpersonationContext::NeedImpersonation);
  work();
}

std::size_t lines_in(void* file) {
  TFileMapping mapping;
  mapping.CreateFileMappingW(PAGE_READONLY, file, static_cast<char const*>(nullptr));
  auto const text = static_cast<char const*>(mapping.MapViewOfFile(FILE_MAP_READ, 0, 0));
  auto const end = text + TFile(file).GetFileSize();
  auto const count = std::count(text, end, '\n');
  UnmapViewOfFile(text);
  return static_cast<std::size_t>(count);
}

std::string next_message(TMailslot& slot) {
  char message[400];
  unsigned long size = 0;
  slot.ReadFile(message, sizeof message, size);
  slot.GetOverlappedResult(size, true);
  return std::string(message, size);
}

std::string hear_oneself() {
  TMailslot slot("\\\\.\\mailslot\\greetings", 1000, 400);  // milliseconds, bytes
  TFile sender("\\\\.\\mailslot\\greetings", GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING);
  sender.WriteFile("hello", 5);
  return next_message(slot);
}

unsigned long status_of(wchar_t const* command, unsigned long patience) {
  TProcess process;
  process.CreateProcessW(command, 0);
  if (process.WaitForSingleObject(patience, FALSE) == WAIT_TIMEOUT) {
    process.TerminateProcess(1);
    process.WaitForSingleObject(INFINITE, FALSE);
  }
  unsigned long status = 0;
  GetExitCodeProcess(process, &status);
  return status;
}

std::string first_bytes(IStream* stream) {
  char bytes[4];
  unsigned long read = 0;
  stream->Read(bytes, sizeof bytes, &read);
  return std::string(bytes, read);
}

std::string first_bytes_of_text(std::string const& text) {
  return first_bytes(CComStringStream::OpenStringStream(std::stringstream(text)));
}

std::string first_bytes_of_file(wchar_t const* name) {
  auto const stream =
      CComFileStream::OpenFileStream(name, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING);
  return stream ? first_bytes(stream) : "";
}

// A file with these contents, opened for overlapped work.
THandle file_with(std::string const& contents, velt_test::ScratchFile const& scratch) {
  TFile(scratch.wide.c_str(), GENERIC_WRITE, 0, CREATE_ALWAYS)
      .WriteFile(contents.data(), static_cast<unsigned long>(contents.size()));
  THandle result;
  result.AttachHandle(CreateFileW(scratch.wide.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
  return result;
}

}  // namespace

TEST(OsDocExamples, StandOnThePageAsTheyRunHere) {
  velt_test::expect_doc_examples_run("os.md", __FILE__);
}

TEST(OsDocExamples, Files) {
  velt_test::ScratchFile scratch;
  auto const name = scratch.wide.c_str();
  EXPECT_EQ(first_bytes_of_file(name), "");
  THandle const file = file_with("line\nline\n" + std::string(60, 'x'), scratch);
  EXPECT_EQ(first_line(name), "line");
  EXPECT_EQ(lines_in(file), 2u);
  EXPECT_EQ(first_bytes_of_file(name), "line");
  EXPECT_EQ(first_bytes_of_text("some text"), "some");
  char header[64] = {};
  EXPECT_TRUE(read_header(file, header));
  EXPECT_EQ(std::string(header, 11), "line\nline\nx");
}

TEST(OsDocExamples, Port) {
  velt_test::ScratchPrinter const printer;
  EXPECT_EQ(port_of(printer.name.c_str()), L"FILE:");
}

TEST(OsDocExamples, OutsideACallThereIsNoClient) {
  EXPECT_THROW(serve([] { FAIL() << "as nobody"; }), _com_error);
}

TEST(OsDocExamples, OtherProcesses) {
  EXPECT_EQ(hear_oneself(), "hello");
  EXPECT_EQ(status_of(L"cmd /c exit 3", 20'000), 3u);
}
