// Mappings, mailslots, processes and the stream of a file by the platform calls
// that they make, as the file objects in PlatformCalls.cpp.
#include <gtest/gtest.h>
#include <windows.h>

#include <comdef.h>

#include <string>

#include "tests/support/OpenHandles.h"
#include "tests/support/PlatformCalls.h"
#include "tests/support/SystemCode.h"
#include "velt/os/ComFileStream.h"
#include "velt/os/FileMapping.h"
#include "velt/os/Mailslot.h"
#include "velt/os/Process.h"

using namespace velt_test;

VELT_WATCH(CreateFileMappingA) VELT_WATCH(CreateFileMappingW) VELT_WATCH(CreateMailslotA)
VELT_WATCH(CreateMailslotW) VELT_WATCH(CreateProcessA) VELT_WATCH(CreateProcessW)
VELT_WATCH(MapViewOfFile) VELT_WATCH(OpenFileMappingA) VELT_WATCH(OpenFileMappingW)
VELT_WATCH(TerminateProcess)

namespace {

constexpr unsigned __int64 large = 0x2'0000'0003;

void* file() {
  static HANDLE const opened =
      CreateFileA((name + "-mapped").c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                  CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr);
  return opened;
}

// Instead of a file: -1, which also stands for the process.
#define NO_FILE "process"

Operation<TFileMapping> const mapping_makers[] = {
    {"CreateFileMappingA(" NO_FILE ", none, 4, 2, 3, name)",
     [](TFileMapping& m) { m.CreateFileMappingW(PAGE_READWRITE, large, name.c_str()); }},
    {"CreateFileMappingW(" NO_FILE ", none, 4, 2, 3, wide name)",
     [](TFileMapping& m) { m.CreateFileMappingW(PAGE_READWRITE, large, wide_name.c_str()); }},
    {"CreateFileMappingA(handle, none, 2, 0, 0, name)",
     [](TFileMapping& m) { m.CreateFileMappingW(PAGE_READONLY, file(), name.c_str()); }},
    {"CreateFileMappingW(handle, none, 2, 0, 0, wide name)",
     [](TFileMapping& m) { m.CreateFileMappingW(PAGE_READONLY, file(), wide_name.c_str()); }},
    {"OpenFileMappingA(4, 0, name)",
     [](TFileMapping& m) { m.OpenFileMappingW(name.c_str(), FILE_MAP_READ); }},
    {"OpenFileMappingW(4, 0, wide name)",
     [](TFileMapping& m) { m.OpenFileMappingW(wide_name.c_str(), FILE_MAP_READ); }},
};

// The constructors take the numbers the other way round.
Operation<TMailslot> const mailslot_makers[] = {
    {"CreateMailslotA(name, 400, 5, none)",
     [](TMailslot& m) { m.CreateMailslotW(name.c_str(), 400, 5); }},
    {"CreateMailslotW(wide name, 400, 5, none)",
     [](TMailslot& m) { m.CreateMailslotW(wide_name.c_str(), 400, 5); }},
    {"CreateMailslotA(name, 400, 5, none)", [](TMailslot&) { TMailslot(name.c_str(), 5, 400); }},
    {"CreateMailslotW(wide name, 400, 5, none)",
     [](TMailslot&) { TMailslot(wide_name.c_str(), 5, 400); }},
};

#define START "none, none, 0, 16, none, none, plain start, out)"

Operation<TProcess> const process_uses[] = {
    {"CreateProcessA(none, name, " START,
     [](TProcess& p) { p.CreateProcessW(name.c_str(), CREATE_NEW_CONSOLE); }},
    {"CreateProcessW(none, wide name, " START,
     [](TProcess& p) { p.CreateProcessW(wide_name.c_str(), CREATE_NEW_CONSOLE); }},
    {"TerminateProcess(handle, 4294967295)", [](TProcess& p) { p.TerminateProcess(-1); }},
};

TFileMapping no_mapping() { return TFileMapping(); }
TProcess some_process() {
  TProcess process;
  process.AttachHandle(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  return process;
}

}  // namespace

TEST(ResourceCalls, FailedMakersThrowAndLeaveTheFieldAsTold) {
  file();
  expect_failures(mapping_makers, no_mapping, after_failure::null);
  expect_failures(mailslot_makers, nothing<TMailslot>, after_failure::minus_one);
  expect_failures(process_uses, some_process, after_failure::unchanged);
}

TEST(ResourceCalls, ViewHasOnlyTheLowerHalfOfAnOffset) {
  TFileMapping mapping;
  mapping.CreateFileMappingW(PAGE_READWRITE, 0x20000, name.c_str());
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
            "CreateFileW(unknown name, 1073741824, 0, none, 3, 128, none)"
            "DuplicateHandle(process, handle, process, out, 0, 0, 2)"
            "CloseHandle(handle)CloseHandle(handle)");
}
