// Calls of the platform that fail under an object: the code reaches the caller,
// the handle is left as the class says, and no handle is lost. A row has the call,
// with its arguments where the object computes them.
#include <gtest/gtest.h>
#include <process.h>
#include <windows.h>

#include <initializer_list>
#include <string>

#include "tests/support/Expect.h"
#include "tests/support/Imports.h"
#include "tests/support/OpenHandles.h"
#include "velt/faults/StackOverflowException.h"
#include "velt/os/File.h"
#include "velt/os/FileMapping.h"
#include "velt/os/Mailslot.h"
#include "velt/os/Overlapped.h"
#include "velt/os/Process.h"

using namespace velt_test;

VELT_WATCH(CancelIo, CloseHandle, CreateFileA, CreateFileMappingA, CreateFileMappingW, CreateFileW,
           CreateMailslotA, CreateMailslotW, CreateProcessA, CreateProcessW, FlushFileBuffers,
           GetFileInformationByHandle, GetOverlappedResult, MapViewOfFile, OpenFileMappingA,
           OpenFileMappingW, ReadFile, SetFilePointerEx, TerminateProcess, WriteFile,
           _beginthreadex);

namespace {

template <class Object>
struct Row {
  char const* call;
  void (*run)(Object&);
};

void* const minus_one = INVALID_HANDLE_VALUE;

// What the handle is after a failure. A call that makes handles answers failure
// by the same value.
using handle_left = std::optional<void*>;
handle_left const unchanged;

template <class Object>
void expect_failures(Object (*subject)(), handle_left left,
                     std::initializer_list<Row<Object>> rows) {
  // The first throw opens handles for good.
  system_code([] { ThrowSystemException(1); });
  for (auto const& [call, run] : rows) {
    SCOPED_TRACE(call);
    long const before = open_handles();
    {
      Object object(subject());
      void* const expected = left.value_or(object);
      {
        std::string const name(call);
        Watch watch(name.substr(0, name.find('(')), left);
        EXPECT_EQ(system_code([&] { run(object); }), injected_code);
        EXPECT_TRUE(watch.calls.starts_with(call)) << watch.calls;
      }
      EXPECT_EQ(static_cast<void*>(object), expected);
    }
    EXPECT_TRUE(open_handles_fall_to(before));
  }
}

template <class Object>
Object nothing() {
  return Object(DoNotInitialize);
}

// Goes with its last handle.
template <class File>
File some_file() {
  File file(DoNotInitialize);
  file.AttachHandle(CreateFileA("velt-failures", GENERIC_READ | GENERIC_WRITE, 7, nullptr,
                                CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
  return file;
}

TFileMapping some_mapping() {
  TFileMapping mapping;
  mapping.CreateFileMappingW(PAGE_READWRITE, 0x20000, static_cast<char*>(nullptr));
  return mapping;
}

TProcess some_process() {
  TProcess process;
  process.AttachHandle(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  return process;
}

unsigned long moved;

}  // namespace

TEST(PlatformFailures, OfFiles) {
  constexpr DWORD access = GENERIC_READ;
#define OPENED "2147483648, 7, none, 4, 128, none)"
  expect_failures<TFile>(
      nothing, minus_one,
      {{"CreateFileA(name, " OPENED, [](TFile& f) { f.OpenFile("name", access, 7, OPEN_ALWAYS); }},
       {"CreateFileW(name, " OPENED,
        [](TFile& f) { f.CreateFileW(L"name", access, 7, OPEN_ALWAYS); }},
       {"CreateFileA(name, " OPENED, [](TFile&) { TFile("name", access, 7, OPEN_ALWAYS); }},
       {"CreateFileW(name, " OPENED, [](TFile&) { TFile(L"name", access, 7, OPEN_ALWAYS); }}});
  expect_failures<TFile>(
      some_file, unchanged,
      {{"ReadFile(handle, buffer, 3, out, none)", [](TFile& f) { f.ReadFile(buffer, 3); }},
       {"ReadFile", [](TFile& f) { f.ReadFile(buffer, 3, moved); }},
       {"WriteFile(handle, buffer, 3, out, none)", [](TFile& f) { f.WriteFile(buffer, 3); }},
       {"WriteFile", [](TFile& f) { f.WriteFile(buffer, 3, moved); }},
       {"SetFilePointerEx(handle, 4294967303, out, 1)",
        [](TFile& f) { f.SetFilePointerEx(0x1'0000'0007, FILE_CURRENT); }},
       {"GetFileInformationByHandle",
        [](TFile& f) {
          BY_HANDLE_FILE_INFORMATION information;
          f.GetFileInformation(information);
        }},
       {"GetFileInformationByHandle", [](TFile& f) { f.GetLastWriteTime(); }},
       {"FlushFileBuffers", [](TFile& f) { f.FlushFile(); }},
       {"CloseHandle", [](TFile& f) { f.CloseHandle(); }}});
}

TEST(PlatformFailures, OfOverlappedFiles) {
  using File = TOverlapped<TFile>;
  expect_failures<File>(
      some_file, unchanged,
      {{"ReadFile(handle, buffer, 3, out, out)", [](File& f) { f.ReadFile(buffer, 3); }},
       {"ReadFile", [](File& f) { f.ReadFile(buffer, 3, moved); }},
       {"WriteFile(handle, buffer, 3, out, out)", [](File& f) { f.WriteFile(buffer, 3); }},
       {"WriteFile", [](File& f) { f.WriteFile(buffer, 3, moved); }},
       {"GetOverlappedResult(handle, out, out, 1)",
        [](File& f) { f.GetOverlappedResult(moved, true); }},
       {"CancelIo", [](File& f) { f.CancelIo(); }}});
}

TEST(PlatformFailures, OfMappings) {
  using Mapping = TFileMapping;
  constexpr unsigned __int64 large = 0x2'0000'0003;
  expect_failures<Mapping>(
      [] { return Mapping(); }, nullptr,
      {{"CreateFileMappingA(process, none, 4, 2, 3, name)",  // -1 is no file, too
        [](Mapping& m) { m.CreateFileMappingW(PAGE_READWRITE, large, "name"); }},
       {"CreateFileMappingW(process, none, 4, 2, 3, name)",
        [](Mapping& m) { m.CreateFileMappingW(PAGE_READWRITE, large, L"name"); }},
       {"CreateFileMappingA(handle, none, 2, 0, 0, name)",
        [](Mapping& m) { m.CreateFileMappingW(PAGE_READONLY, some_process(), "name"); }},
       {"CreateFileMappingW(handle, none, 2, 0, 0, name)",
        [](Mapping& m) { m.CreateFileMappingW(PAGE_READONLY, some_process(), L"name"); }},
       {"OpenFileMappingA", [](Mapping& m) { m.OpenFileMappingW("name", FILE_MAP_READ); }},
       {"OpenFileMappingW", [](Mapping& m) { m.OpenFileMappingW(L"name", FILE_MAP_READ); }}});
  expect_failures<Mapping>(some_mapping, unchanged,
                           {{"MapViewOfFile(handle, 4, 0, 65536, 7)",
                             [](Mapping& m) { m.MapViewOfFile(FILE_MAP_READ, 0x10000, 7); }}});
}

// The constructors take the numbers the other way round.
TEST(PlatformFailures, OfMailslots) {
  using Slot = TMailslot;
  expect_failures<Slot>(
      nothing, minus_one,
      {{"CreateMailslotA(name, 400, 5", [](Slot& m) { m.CreateMailslotW("name", 400, 5); }},
       {"CreateMailslotW(name, 400, 5", [](Slot& m) { m.CreateMailslotW(L"name", 400, 5); }},
       {"CreateMailslotA(name, 400, 5", [](Slot&) { TMailslot("name", 5, 400); }},
       {"CreateMailslotW(name, 400, 5", [](Slot&) { TMailslot(L"name", 5, 400); }}});
}

TEST(PlatformFailures, OfProcesses) {
  using Process = TProcess;
  expect_failures<Process>(
      some_process, unchanged,
      {{"CreateProcessA(none, name, none, none, 0, 16",
        [](Process& p) { p.CreateProcessW("name", CREATE_NEW_CONSOLE); }},
       {"CreateProcessW(none, name, none, none, 0, 16",
        [](Process& p) { p.CreateProcessW(L"name", CREATE_NEW_CONSOLE); }},
       {"TerminateProcess(handle, 4294967295)", [](Process& p) { p.TerminateProcess(-1); }}});
  // The thread of a process is closed at once, whatever the platform answers.
  TProcess process;
  Watch watch("CloseHandle");
  EXPECT_EQ(system_code([&] { process.CreateProcessW(L"cmd /c exit", 0); }), -1);
  EXPECT_TRUE(watch.calls.ends_with(")CloseHandle(handle)")) << watch.calls;
  EXPECT_TRUE(process.IsValidHandle());
}

// Of the thread that makes the exception.
TEST(PlatformFailures, OfOverflows) {
  for (char const* call : {"_beginthreadex", "CloseHandle"}) {
    Watch watch(call);
    auto const overflow = [] {
      EXCEPTION_RECORD record{};
      CONTEXT context{};
      EXCEPTION_POINTERS pointers{&record, &context};
      EStackOverflowException::Throw(&pointers, 0);
    };
    EXPECT_EQ(system_code(overflow), injected_code) << call;
  }
}
