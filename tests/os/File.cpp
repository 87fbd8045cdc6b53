#include "velt/os/File.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <initializer_list>
#include <string>

#include "tests/support/ChildProcess.h"
#include "tests/support/Expect.h"
#include "tests/support/Imports.h"
#include "tests/support/OpenHandles.h"
#include "velt/locks/Event.h"
#include "velt/os/Overlapped.h"

using namespace velt_test;

VELT_WATCH(DuplicateHandle);

namespace {

using TOverlappedFile = TOverlapped<TFile>;

constexpr DWORD both = GENERIC_READ | GENERIC_WRITE;

struct File : ::testing::Test {
  scratch_folder const scratch;
  std::wstring const name = (scratch.path() / "file").native();
};

}  // namespace

TEST_F(File, PositionsReachBeyondFourGigabytesAndTimesAreTheFileSystems) {
  TFile file(name.c_str(), both, 0, CREATE_ALWAYS);
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

  FILETIME const set = {0x12345678, 0x01C80000};
  ASSERT_TRUE(SetFileTime(file, nullptr, nullptr, &set));
  FILETIME const found = file.GetLastWriteTime();
  // File systems keep as little as whole microseconds.
  EXPECT_NEAR(found.dwLowDateTime, set.dwLowDateTime, 10);
  EXPECT_EQ(found.dwHighDateTime, set.dwHighDateTime);
}

TEST_F(File, OverlappedWorksWhereTheRecordSaysAndACopyGoesOn) {
  TOverlappedFile file;
  file.AttachHandle(CreateFileW(name.c_str(), both, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                FILE_FLAG_OVERLAPPED, nullptr));
  ASSERT_TRUE(file.IsValidHandle() && file.HasIoCompleted());
  auto const moved = [&] {
    unsigned long count = 0;
    EXPECT_TRUE(file.GetOverlappedResult(count, true));
    EXPECT_TRUE(file.HasIoCompleted());
    return count;
  };
  // The file system need not store what lies before.
  DWORD returned;
  DeviceIoControl(file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
  file.SetOffset(0x1'0000'0064);
  file.WriteFile("overlapped", 10);
  EXPECT_EQ(moved(), 10u);
  EXPECT_EQ(file.GetFileSize(), 0x1'0000'006Eu);
  char text[20] = {};
  unsigned long at_once = 0;
  file.SetOffset(0x1'0000'0068);
  file = TOverlappedFile(file);
  file.ReadFile(text, sizeof text, at_once);
  EXPECT_EQ(moved(), 6u);
  EXPECT_STREQ(text, "lapped");
}

TEST(Overlapped, EventIsDuplicatedAndClosed) {
  TEvent event;
  TOverlappedFile file;
  long const before = open_handles();
  for (void* const each : std::initializer_list<void*>{event, event, nullptr}) {
    file.SetEvent(each);
    EXPECT_EQ(open_handles(), each ? before + 1 : before);
    EXPECT_TRUE(!each == !file.hEvent && (!each || file.hEvent != each));
  }
  file.SetEvent(event);
  Watch const watch("DuplicateHandle");
  EXPECT_EQ(system_code([&] { file.SetEvent(event); }), injected_code);
  EXPECT_EQ(file.hEvent, nullptr);
}

// The server's end of a pipe works beside the program.
TEST(Overlapped, PendingReadIsCompletedByThePeerOrThrowsWhenItIsCancelled) {
  std::string const name = "\\\\.\\pipe\\velt-" + std::to_string(GetCurrentProcessId());
  TOverlappedFile server;
  server.AttachHandle(CreateNamedPipeA(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                       PIPE_TYPE_BYTE, 1, 4096, 4096, 0, nullptr));
  TFile client(name.c_str(), both, 0, OPEN_EXISTING);
  TEvent done;
  server.SetEvent(done);
  char text[16] = {};
  unsigned long moved = 77;
  auto const start_reading = [&] {
    EXPECT_EQ(server.ReadFile(text, sizeof text), 0u);
    EXPECT_FALSE(server.HasIoCompleted() || server.GetOverlappedResult(moved, false));
  };
  start_reading();
  EXPECT_FALSE(done.Signaled(0));
  client.WriteFile("answer", 6);
  EXPECT_TRUE(done.Signaled(20'000));
  EXPECT_TRUE(server.HasIoCompleted());
  EXPECT_TRUE(server.GetOverlappedResult(moved, false));
  EXPECT_EQ(std::string(text, moved), "answer");

  start_reading();
  server.CancelIo();
  EXPECT_EQ(system_code([&] { server.GetOverlappedResult(moved, true); }), ERROR_OPERATION_ABORTED);
}
