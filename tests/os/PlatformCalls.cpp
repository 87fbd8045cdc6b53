// The objects by the platform calls that they make. Tables name every operation
// with its call, which the tests make fail.
#include <gtest/gtest.h>
#include <windows.h>

#include <comdef.h>

#include <cstring>
#include <string>

#include "tests/support/Expect.h"
#include "tests/support/Imports.h"
#include "tests/support/OpenHandles.h"
#include "velt/os/ComFileStream.h"
#include "velt/os/File.h"
#include "velt/os/FileMapping.h"
#include "velt/os/Mailslot.h"
#include "velt/os/Overlapped.h"
#include "velt/os/Process.h"

using namespace velt_test;

VELT_WATCH(CancelIo) VELT_WATCH(CloseHandle) VELT_WATCH(CreateFileA) VELT_WATCH(CreateFileW)
VELT_WATCH(DuplicateHandle) VELT_WATCH(FlushFileBuffers) VELT_WATCH(GetFileInformationByHandle)
VELT_WATCH(GetFileSize) VELT_WATCH(GetOverlappedResult) VELT_WATCH(ReadFile)
VELT_WATCH(SetFilePointer) VELT_WATCH(SetFilePointerEx) VELT_WATCH(WriteFile)
VELT_WATCH(CreateFileMappingA) VELT_WATCH(CreateFileMappingW) VELT_WATCH(CreateMailslotA)
VELT_WATCH(CreateMailslotW) VELT_WATCH(CreateProcessA) VELT_WATCH(CreateProcessW)
VELT_WATCH(MapViewOfFile) VELT_WATCH(OpenFileMappingA) VELT_WATCH(OpenFileMappingW)
VELT_WATCH(TerminateProcess)

namespace {

void* const none = INVALID_HANDLE_VALUE;

// Operations of a class: what they are run on is made by `subject`.
template <class Object>
struct Operation {
  char const* call;
  void (*run)(Object&);
};

// What the field holds after a call failed. A call that makes a handle answers
// failure by the same value.
enum class after_failure { null, minus_one, unchanged };

// Each throws the platform's code when its call fails, leaves the field as said
// and loses no handle.
template <class Object, std::size_t count>
void expect_failures(Operation<Object> const (&operations)[count], Object (*subject)(),
                     after_failure field) {
  for (auto const& [call, run] : operations) {
    SCOPED_TRACE(call);
    long const before = open_handles();
    {
      Object object(subject());
      void* const expected = field == after_failure::null        ? nullptr
                             : field == after_failure::minus_one ? none
                                                                 : static_cast<void*>(object);
      {
        Watch watch(std::string(call, std::strcspn(call, "(")));
        if (field != after_failure::unchanged) watch.answer = expected;
        EXPECT_EQ(system_code([&] { run(object); }), injected_code);
        EXPECT_EQ(watch.calls, call);
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

using TOverlappedFile = TOverlapped<TFile>;

unsigned long moved;
BY_HANDLE_FILE_INFORMATION information;

#define DUPLICATION "DuplicateHandle(process, handle, process, out, 0, 0, 2)"

// Read, all sharing, opened or made.
#define OPENING GENERIC_READ, 7, OPEN_ALWAYS
#define OPENED "2147483648, 7, none, 4, 128, none)"

Operation<TFile> const makers[] = {
    {"CreateFileA(name, " OPENED, [](TFile& f) { f.CreateFileW("name", OPENING); }},
    {"CreateFileA(name, " OPENED, [](TFile& f) { f.OpenFile("name", OPENING); }},
    {"CreateFileW(name, " OPENED, [](TFile& f) { f.OpenFile(L"name", OPENING); }},
    {"CreateFileA(name, " OPENED, [](TFile&) { TFile("name", OPENING); }},
    {"CreateFileW(name, " OPENED, [](TFile&) { TFile(L"name", OPENING); }},
};

Operation<TFile> const uses[] = {
    {"ReadFile(handle, buffer, 3, out, none)", [](TFile& f) { f.ReadFile(buffer, 3); }},
    {"ReadFile(handle, buffer, 3, out, none)", [](TFile& f) { f.ReadFile(buffer, 3, moved); }},
    {"WriteFile(handle, buffer, 3, out, none)", [](TFile& f) { f.WriteFile(buffer, 3); }},
    {"WriteFile(handle, buffer, 3, out, none)", [](TFile& f) { f.WriteFile(buffer, 3, moved); }},
    {"SetFilePointerEx(handle, 4294967303, out, 1)",
     [](TFile& f) { f.SetFilePointerEx(0x1'0000'0007, FILE_CURRENT); }},
    {"GetFileInformationByHandle(handle, out)",
     [](TFile& f) { f.GetFileInformation(information); }},
    {"GetFileInformationByHandle(handle, out)", [](TFile& f) { f.GetLastWriteTime(); }},
    {"FlushFileBuffers(handle)", [](TFile& f) { f.FlushFile(); }},
    {"CloseHandle(handle)", [](TFile& f) { f.CloseHandle(); }},
};

using O = TOverlappedFile;
Operation<O> const overlapped_uses[] = {
    {"WriteFile(handle, buffer, 3, out, out)", [](O& f) { f.WriteFile(buffer, 3); }},
    {"WriteFile(handle, buffer, 3, out, out)", [](O& f) { f.WriteFile(buffer, 3, moved); }},
    {"ReadFile(handle, buffer, 3, out, out)", [](O& f) { f.ReadFile(buffer, 3); }},
    {"ReadFile(handle, buffer, 3, out, out)", [](O& f) { f.ReadFile(buffer, 3, moved); }},
    {"GetOverlappedResult(handle, out, out, 1)",
     [](O& f) { f.GetOverlappedResult(moved, true); }},
    {"CancelIo(handle)", [](O& f) { f.CancelIo(); }},
};

// Goes with its last handle.
template <class File>
File scratch_file() {
  File file(DoNotInitialize);
  file.AttachHandle(CreateFileA("name", GENERIC_READ | GENERIC_WRITE, 7, nullptr,
                                CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
  WriteFile(file, "contents", 8, &moved, nullptr);
  SetFilePointer(file, 0, nullptr, FILE_BEGIN);
  return file;
}

constexpr unsigned __int64 large = 0x2'0000'0003;

void* file() {
  static HANDLE const opened =
      CreateFileA("name-mapped", GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                  CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr);
  return opened;
}

// Instead of a file: -1, which also stands for the process.
#define NO_FILE "process"

Operation<TFileMapping> const mapping_makers[] = {
    {"CreateFileMappingA(" NO_FILE ", none, 4, 2, 3, name)",
     [](TFileMapping& m) { m.CreateFileMappingW(PAGE_READWRITE, large, "name"); }},
    {"CreateFileMappingW(" NO_FILE ", none, 4, 2, 3, name)",
     [](TFileMapping& m) { m.CreateFileMappingW(PAGE_READWRITE, large, L"name"); }},
    {"CreateFileMappingA(handle, none, 2, 0, 0, name)",
     [](TFileMapping& m) { m.CreateFileMappingW(PAGE_READONLY, file(), "name"); }},
    {"CreateFileMappingW(handle, none, 2, 0, 0, name)",
     [](TFileMapping& m) { m.CreateFileMappingW(PAGE_READONLY, file(), L"name"); }},
    {"OpenFileMappingA(4, 0, name)",
     [](TFileMapping& m) { m.OpenFileMappingW("name", FILE_MAP_READ); }},
    {"OpenFileMappingW(4, 0, name)",
     [](TFileMapping& m) { m.OpenFileMappingW(L"name", FILE_MAP_READ); }},
};

// The constructors take the numbers the other way round.
Operation<TMailslot> const mailslot_makers[] = {
    {"CreateMailslotA(name, 400, 5, none)",
     [](TMailslot& m) { m.CreateMailslotW("name", 400, 5); }},
    {"CreateMailslotW(name, 400, 5, none)",
     [](TMailslot& m) { m.CreateMailslotW(L"name", 400, 5); }},
    {"CreateMailslotA(name, 400, 5, none)", [](TMailslot&) { TMailslot("name", 5, 400); }},
    {"CreateMailslotW(name, 400, 5, none)",
     [](TMailslot&) { TMailslot(L"name", 5, 400); }},
};

#define START "none, none, 0, 16, none, none, out, out)"

Operation<TProcess> const process_uses[] = {
    {"CreateProcessA(none, name, " START,
     [](TProcess& p) { p.CreateProcessW("name", CREATE_NEW_CONSOLE); }},
    {"CreateProcessW(none, name, " START,
     [](TProcess& p) { p.CreateProcessW(L"name", CREATE_NEW_CONSOLE); }},
    {"TerminateProcess(handle, 4294967295)", [](TProcess& p) { p.TerminateProcess(-1); }},
};

TFileMapping no_mapping() { return TFileMapping(); }
TProcess some_process() {
  TProcess process;
  process.AttachHandle(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  return process;
}

struct FileCalls : ::testing::Test {
  static void SetUpTestSuite() {
    Watch watch("CreateFileA", none);
    system_code([] { TFile("name", OPENING); });
  }
  static void TearDownTestSuite() { DeleteFileA("name"); }
};

}  // namespace

TEST_F(FileCalls, OperationsAreOneCallWhoseFailureThrows) {
  expect_failures(makers, nothing<TFile>, after_failure::minus_one);
  expect_failures(uses, scratch_file<TFile>, after_failure::unchanged);
  expect_failures(overlapped_uses, scratch_file<TOverlappedFile>, after_failure::unchanged);
}

TEST_F(FileCalls, PositionAndSizeDoNotReportFailure) {
  TFile file = scratch_file<TFile>();
  Watch watch("SetFilePointer");
  EXPECT_EQ(file.SetFilePointer(-3, FILE_END), 0xFFFFFFFFu);
  watch.failing = "GetFileSize";
  EXPECT_EQ(file.GetFileSize() & 0xFFFFFFFF, 0xFFFFFFFFu);
  EXPECT_EQ(watch.calls, "SetFilePointer(handle, -3, none, 2)GetFileSize(handle, out)");
}

TEST_F(FileCalls, EventIsDuplicatedAndClosed) {
  void* const event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  long const before = open_handles();
  {
    TOverlappedFile file;
    Watch watch;
    auto const calls_of_setting = [&](void* what) {
      watch.calls.clear();
      file.SetEvent(what);
      return watch.calls;
    };
    EXPECT_EQ(calls_of_setting(nullptr), "");
    EXPECT_EQ(calls_of_setting(event), DUPLICATION);
    EXPECT_NE(file.hEvent, event);
    EXPECT_EQ(calls_of_setting(event), "CloseHandle(handle)" DUPLICATION);
    EXPECT_EQ(open_handles(), before + 1);
    EXPECT_EQ(calls_of_setting(nullptr), "CloseHandle(handle)");
    EXPECT_EQ(file.hEvent, nullptr);
    file.SetEvent(event);
    watch.failing = "DuplicateHandle";
    EXPECT_EQ(system_code([&] { file.SetEvent(event); }), injected_code);
    EXPECT_EQ(file.hEvent, nullptr);
    watch.failing.clear();
    file.SetEvent(event);
  }
  EXPECT_EQ(open_handles(), before);
  CloseHandle(event);
}

TEST_F(FileCalls, FailedCloseOfAnEventIsIgnoredAndOneOfTheFileThrows) {
  void* const event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  alignas(TOverlappedFile) unsigned char place[sizeof(TOverlappedFile)];
  auto const file = new (place) TOverlappedFile(scratch_file<TOverlappedFile>());
  file->SetEvent(event);
  void* left[] = {event, *file, file->hEvent, nullptr};
  {
    Watch watch("CloseHandle");
    EXPECT_EQ(system_code([&] { file->SetEvent(event); }), -1);
    left[3] = file->hEvent;
    EXPECT_EQ(system_code([&] { file->~TOverlapped(); }), injected_code);
    EXPECT_TRUE(watch.calls.ends_with("CloseHandle(handle)CloseHandle(handle)")) << watch.calls;
  }
  for (auto const handle : left) EXPECT_TRUE(CloseHandle(handle));
}

TEST(ResourceCalls, FailedMakersThrowAndLeaveTheFieldAsTold) {
  file();
  expect_failures(mapping_makers, no_mapping, after_failure::null);
  expect_failures(mailslot_makers, nothing<TMailslot>, after_failure::minus_one);
  expect_failures(process_uses, some_process, after_failure::unchanged);
}

TEST(ResourceCalls, ViewHasOnlyTheLowerHalfOfAnOffset) {
  TFileMapping mapping;
  mapping.CreateFileMappingW(PAGE_READWRITE, 0x20000, "name");
  {
    Watch watch;
    UnmapViewOfFile(mapping.MapViewOfFile(FILE_MAP_READ, 0x10000, 7));
    EXPECT_EQ(watch.calls, "MapViewOfFile(handle, 4, 0, 65536, 7)");
  }
  Watch watch("MapViewOfFile");
  EXPECT_EQ(system_code([&] { mapping.MapViewOfFile(FILE_MAP_READ, 0, 0); }), injected_code);
  EXPECT_TRUE(mapping.IsValidHandle());
}

TEST(ResourceCalls, ThreadOfAProcessIsClosedAtOnceWhateverThePlatformAnswers) {
  TProcess process;
  Watch watch("CloseHandle");
  EXPECT_EQ(system_code([&] { process.CreateProcessW(L"cmd /c exit", 0); }), -1);
  EXPECT_TRUE(watch.calls.ends_with(")CloseHandle(handle)")) << watch.calls;
  EXPECT_TRUE(process.IsValidHandle());
}

TEST(ResourceCalls, StreamOfAFileThrowsWhenItsOwnHandleIsNotClosed) {
  wchar_t const* const null_device = L"NUL";
  Watch watch("CloseHandle");
  EXPECT_EQ(system_code([&] {
              CComFileStream::OpenFileStream(null_device, GENERIC_WRITE, 0, OPEN_EXISTING);
            }),
            injected_code);
  EXPECT_EQ(watch.calls,
            "CreateFileW(NUL, 1073741824, 0, none, 3, 128, none)"
            "DuplicateHandle(process, handle, process, out, 0, 0, 2)"
            "CloseHandle(handle)CloseHandle(handle)");
}
