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
    {"ReadFile(handle, buffer, 3, out, none)",
     [](TFile& f) {
       unsigned long read;
       f.ReadFile(buffer, 3, read);
     }},
    {"WriteFile(handle, buffer, 3, out, none)", [](TFile& f) { f.WriteFile(buffer, 3); }},
    {"WriteFile(handle, buffer, 3, out, none)",
     [](TFile& f) {
       unsigned long written;
       f.WriteFile(buffer, 3, written);
     }},
    {"SetFilePointerEx(handle, 4294967303, out, 1)",
     [](TFile& f) { f.SetFilePointerEx(0x1'0000'0007, FILE_CURRENT); }},
    {"GetFileInformationByHandle(handle, out)",
     [](TFile& f) {
       BY_HANDLE_FILE_INFORMATION information;
       f.GetFileInformation(information);
     }},
    {"GetFileInformationByHandle(handle, out)", [](TFile& f) { f.GetLastWriteTime(); }},
    {"FlushFileBuffers(handle)", [](TFile& f) { f.FlushFile(); }},
    {"CloseHandle(handle)", [](TFile& f) { f.CloseHandle(); }},
};

Operation<TFile> const silent_uses[] = {
    {"SetFilePointer(handle, -3, none, 2)",
     [](TFile& f) { EXPECT_EQ(f.SetFilePointer(-3, FILE_END), 0xFFFFFFFFu); }},
    {"GetFileSize(handle, out)",
     [](TFile& f) { EXPECT_EQ(f.GetFileSize() & 0xFFFFFFFF, 0xFFFFFFFFu); }},
};

Operation<TOverlappedFile> const overlapped_uses[] = {
    {"WriteFile(handle, buffer, 3, out, record)",
     [](TOverlappedFile& f) { f.WriteFile(buffer, 3); }},
    {"WriteFile(handle, buffer, 3, out, record)",
     [](TOverlappedFile& f) {
       unsigned long written;
       f.WriteFile(buffer, 3, written);
     }},
    {"ReadFile(handle, buffer, 3, out, record)",
     [](TOverlappedFile& f) { f.ReadFile(buffer, 3); }},
    {"ReadFile(handle, buffer, 3, out, record)",
     [](TOverlappedFile& f) {
       unsigned long read;
       f.ReadFile(buffer, 3, read);
     }},
    {"GetOverlappedResult(handle, record, out, 1)",
     [](TOverlappedFile& f) {
       unsigned long moved;
       f.GetOverlappedResult(moved, true);
     }},
    {"CancelIo(handle)", [](TOverlappedFile& f) { f.CancelIo(); }},
};

// Goes with its last handle.
template <class File>
File scratch_file() {
  File file(DoNotInitialize);
  file.AttachHandle(CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, 7, nullptr,
                                CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
  unsigned long written;
  WriteFile(file, "contents", 8, &written, nullptr);
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

TEST_F(FileCalls, OpeningIsOneCallAndItsFailureThrows) {
  expect_calls(makers, nothing<TFile>);
  expect_failures(makers, nothing<TFile>, after_failure::minus_one);
}

TEST_F(FileCalls, OperationsAreOneCallEach) {
  expect_calls(uses, scratch_file<TFile>);
  expect_calls(overlapped_uses, scratch_file<TOverlappedFile>);
}

TEST_F(FileCalls, FailedOperationsThrowAndKeepTheHandle) {
  expect_failures(uses, scratch_file<TFile>, after_failure::unchanged);
  expect_failures(overlapped_uses, scratch_file<TOverlappedFile>, after_failure::unchanged);
}

TEST_F(FileCalls, PositionAndSizeDoNotReportFailure) {
  for (auto const& [call, run] : silent_uses) {
    TFile file = scratch_file<TFile>();
    Watch watch(call_name(call));
    run(file);
    EXPECT_EQ(watch.calls, call);
  }
}

TEST_F(FileCalls, EventIsDuplicatedAndClosed) {
  void* const event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  long const before = open_handles();
  {
    TOverlappedFile file;
    Watch watch;
    file.SetEvent(nullptr);
    EXPECT_EQ(watch.calls, "");
    file.SetEvent(event);
    EXPECT_EQ(watch.calls, DUPLICATION);
    EXPECT_NE(file.hEvent, event);
    EXPECT_EQ(open_handles(), before + 1);
    watch.calls.clear();
    file.SetEvent(event);
    EXPECT_EQ(watch.calls, "CloseHandle(handle)" DUPLICATION);
    watch.calls.clear();
    file.SetEvent(nullptr);
    EXPECT_EQ(watch.calls, "CloseHandle(handle)");
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
  {
    TOverlappedFile file;
    file.SetEvent(event);
    CloseHandle(file.hEvent);  // so that the platform refuses
    Watch watch;
    EXPECT_NO_THROW(file.SetEvent(nullptr));
    file.SetEvent(event);
    CloseHandle(file.hEvent);
  }
  alignas(TOverlappedFile) unsigned char place[sizeof(TOverlappedFile)];
  auto const file = new (place) TOverlappedFile(scratch_file<TOverlappedFile>());
  file->SetEvent(event);
  void* const left[] = {*file, file->hEvent};
  {
    Watch watch("CloseHandle");
    EXPECT_EQ(system_code([&] { file->~TOverlapped(); }), injected_code);
    EXPECT_EQ(watch.calls, "CloseHandle(handle)CloseHandle(handle)");
  }
  for (auto const handle : left) EXPECT_TRUE(CloseHandle(handle));
  CloseHandle(event);
}
