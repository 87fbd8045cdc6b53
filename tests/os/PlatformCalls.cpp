// The file objects by the platform calls that they make. Tables name every
// operation with its call; the tests run them once as they are and once with
// that call failing.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "tests/support/OpenHandles.h"
#include "tests/support/PlatformCalls.h"
#include "tests/support/SystemCode.h"
#include "velt/os/File.h"
#include "velt/os/Overlapped.h"

using namespace velt_test;

VELT_WATCH(CancelIo) VELT_WATCH(CloseHandle) VELT_WATCH(CreateFileA) VELT_WATCH(CreateFileW)
VELT_WATCH(DuplicateHandle) VELT_WATCH(FlushFileBuffers) VELT_WATCH(GetFileInformationByHandle)
VELT_WATCH(GetFileSize) VELT_WATCH(GetOverlappedResult) VELT_WATCH(ReadFile)
VELT_WATCH(SetFilePointer) VELT_WATCH(SetFilePointerEx) VELT_WATCH(WriteFile)

namespace {

using TOverlappedFile = TOverlapped<TFile>;

unsigned long moved;
BY_HANDLE_FILE_INFORMATION information;

#define DUPLICATION "DuplicateHandle(process, handle, process, out, 0, 0, 2)"

// Read, all sharing, opened or made.
#define OPENING GENERIC_READ, 7, OPEN_ALWAYS
#define OPENED "2147483648, 7, none, 4, 128, none)"

Construction const constructions[] = {
    {"CreateFileA(name, " OPENED, [] { TFile(name.c_str(), OPENING); }},
    {"CreateFileW(wide name, " OPENED, [] { TFile(wide_name.c_str(), OPENING); }},
};

Operation<TFile> const makers[] = {
    {"CreateFileA(name, " OPENED, [](TFile& f) { f.CreateFileW(name.c_str(), OPENING); }},
    {"CreateFileA(name, " OPENED, [](TFile& f) { f.OpenFile(name.c_str(), OPENING); }},
    {"CreateFileW(wide name, " OPENED, [](TFile& f) { f.OpenFile(wide_name.c_str(), OPENING); }},
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
    {"WriteFile(handle, buffer, 3, out, record)", [](O& f) { f.WriteFile(buffer, 3); }},
    {"WriteFile(handle, buffer, 3, out, record)", [](O& f) { f.WriteFile(buffer, 3, moved); }},
    {"ReadFile(handle, buffer, 3, out, record)", [](O& f) { f.ReadFile(buffer, 3); }},
    {"ReadFile(handle, buffer, 3, out, record)", [](O& f) { f.ReadFile(buffer, 3, moved); }},
    {"GetOverlappedResult(handle, record, out, 1)",
     [](O& f) { f.GetOverlappedResult(moved, true); }},
    {"CancelIo(handle)", [](O& f) { f.CancelIo(); }},
};

// Goes with its last handle.
template <class File>
File scratch_file() {
  File file(DoNotInitialize);
  file.AttachHandle(CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, 7, nullptr,
                                CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
  WriteFile(file, "contents", 8, &moved, nullptr);
  SetFilePointer(file, 0, nullptr, FILE_BEGIN);
  return file;
}

struct FileCalls : ::testing::Test {
  static void SetUpTestSuite() {
    Watch watch("CreateFileA", none);
    system_code([] { TFile(name.c_str(), OPENING); });
  }
  static void TearDownTestSuite() { DeleteFileA(name.c_str()); }
};

}  // namespace

TEST_F(FileCalls, FailedConstructorsThrowAndLeaveNothing) {
  for (auto const& [call, run] : constructions) {
    long const before = open_handles();
    Watch watch(call_name(call), none);
    EXPECT_EQ(system_code(run), injected_code);
    EXPECT_EQ(watch.calls, call);
    EXPECT_EQ(open_handles(), before);
  }
}

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
