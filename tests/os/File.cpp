#include "velt/os/File.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <string>

#include "tests/support/ChildProcess.h"
#include "tests/support/Expect.h"
#include "tests/support/OpenHandles.h"
#include "velt/os/FileMapping.h"
#include "velt/os/Process.h"

using namespace velt_test;

namespace {

char* view_of(TFileMapping& mapping, unsigned long access) {
  return static_cast<char*>(mapping.MapViewOfFile(access, 0, 0));
}

struct File : ::testing::Test {
  scratch_folder const scratch;
  std::wstring const name = (scratch.path() / "file").native();
};

// 259, as of a process that runs, if it does not end in time.
DWORD exit_code(TProcess const& process) {
  DWORD code = STILL_ACTIVE;
  process.WaitForSingleObject(20'000, FALSE);
  GetExitCodeProcess(process, &code);
  return code;
}

}  // namespace

TEST_F(File, SizesAndPositionsBeyondFourGigabytes) {
  TFile file(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS);
  file.WriteFile("abc", 3);
  EXPECT_EQ(file.SetFilePointerEx(-1, FILE_END), 2u);
  EXPECT_EQ(file.SetFilePointerEx(0x1'2345'6789, FILE_BEGIN), 0x1'2345'6789u);
  EXPECT_EQ(file.SetFilePointerEx(1, FILE_CURRENT), 0x1'2345'678Au);
  EXPECT_EQ(file.SetFilePointer(1, FILE_BEGIN), 1u);
  EXPECT_EQ(system_code([&] { file.SetFilePointerEx(-1, FILE_BEGIN); }), ERROR_NEGATIVE_SEEK);
  EXPECT_EQ(file.SetFilePointer(-1, FILE_BEGIN), 0xFFFFFFFFu) << "which is no exception";
  char rest[8];
  EXPECT_EQ(file.ReadFile(rest, sizeof rest), 2u) << "a failed move moved";
  EXPECT_EQ(file.ReadFile(rest, sizeof rest), 0u) << "the end of the file is no failure";
  // The file system need not store what lies between.
  DWORD returned;
  DeviceIoControl(file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
  file.SetFilePointerEx(0x1'0000'0005, FILE_BEGIN);
  ASSERT_TRUE(SetEndOfFile(file));
  EXPECT_EQ(file.GetFileSize(), 0x1'0000'0005u);

  FILETIME const set = {0x12345678, 0x01C80000};
  ASSERT_TRUE(SetFileTime(file, nullptr, nullptr, &set));
  FILETIME const found = file.GetLastWriteTime();
  // File systems keep as little as whole microseconds.
  EXPECT_NEAR(found.dwLowDateTime, set.dwLowDateTime, 10);
  EXPECT_EQ(found.dwHighDateTime, set.dwHighDateTime);
}

TEST_F(File, MappingIsTheFileAndWrittenOnlyIfThatMayBe) {
  auto const shared = L"velt-os-" + std::to_wstring(GetCurrentProcessId());
  TFile(name.c_str(), GENERIC_WRITE, 0, CREATE_ALWAYS).WriteFile("some text", 9);
  {
    TFile const file(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING);
    TFileMapping mapping, again;
    mapping.CreateFileMappingW(PAGE_READWRITE, file, shared.c_str());
    again.CreateFileMappingW(PAGE_READWRITE, 4096, shared.c_str());
    auto const view = view_of(again, FILE_MAP_WRITE);
    std::memcpy(view, "more", 4);
    UnmapViewOfFile(view);
  }
  TFile const file(name.c_str(), GENERIC_READ, 0, OPEN_EXISTING);
  TFileMapping mapping;
  EXPECT_EQ(system_code([&] { mapping.CreateFileMappingW(PAGE_READWRITE, file, L""); }),
            ERROR_ACCESS_DENIED);
  mapping.CreateFileMappingW(PAGE_READONLY, file, L"");
  EXPECT_EQ(system_code([&] { mapping.MapViewOfFile(FILE_MAP_WRITE, 0, 0); }), ERROR_ACCESS_DENIED);
  auto const view = view_of(mapping, FILE_MAP_READ);
  EXPECT_EQ(std::string(view, 9), "more text");
  UnmapViewOfFile(view);
}

TEST(Process, IsStoredOverTheOldOneIfItStartsAndCanBeKilled) {
  long const before = open_handles();
  {
    TProcess process, old;
    process.CreateProcessW("cmd /c exit 1", 0);
    EXPECT_EQ(system_code([&] { process.CreateProcessW("velt-no-such-program", 0); }),
              ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(open_handles(), before + 1) << "that of the process, and none of its thread";
    old.AttachHandle(process);
    process.CreateProcessW(L"cmd /c exit", CREATE_SUSPENDED);
    EXPECT_EQ(exit_code(old), 1u);
    EXPECT_EQ(process.WaitForSingleObject(0, FALSE), DWORD{WAIT_TIMEOUT});
    process.TerminateProcess(-3);
    EXPECT_EQ(exit_code(process), 0xFFFFFFFDu);
  }
  EXPECT_EQ(open_handles(), before);
}
