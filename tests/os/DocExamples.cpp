// The examples of docs/os.md, run.
#include <gtest/gtest.h>
#include <windows.h>

#include <comdef.h>
#include <winspool.h>

#include <string>

#include "tests/os/ScratchFile.h"
#include "tests/os/ScratchPrinter.h"
#include "tests/support/DocExamples.h"
#include "velt/os/CoInitialize.h"
#include "velt/os/File.h"
#include "velt/os/ImpersonationContext.h"
#include "velt/os/Overlapped.h"
#include "velt/os/Printer.h"

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

TEST(OsDocExamples, FirstLine) {
  velt_test::ScratchFile scratch;
  THandle const file = file_with("one\ntwo\n", scratch);
  EXPECT_EQ(first_line(scratch.wide.c_str()), "one");
}

TEST(OsDocExamples, Header) {
  velt_test::ScratchFile scratch;
  THandle const file = file_with(std::string(70, 'x'), scratch);
  char header[64] = {};
  EXPECT_TRUE(read_header(file, header));
  EXPECT_EQ(std::string(header, 64), std::string(64, 'x'));
}

TEST(OsDocExamples, Port) {
  velt_test::ScratchPrinter const printer;
  EXPECT_EQ(port_of(printer.name.c_str()), L"FILE:");
}

TEST(OsDocExamples, OutsideACallThereIsNoClient) {
  EXPECT_THROW(serve([] { FAIL() << "as nobody"; }), _com_error);
}
