// The platform's headers stand first here, and last in File.cpp: the names of
// the operations must survive either.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "tests/support/ChildProcess.h"
#include "tests/support/Expect.h"
#include "tests/support/Imports.h"
#include "velt/locks/Event.h"
#include "velt/os/Overlapped.h"

using namespace velt_test;

VELT_WATCH(CloseHandle, DuplicateHandle);

namespace {

using TOverlappedFile = TOverlapped<TFile>;

constexpr DWORD both = GENERIC_READ | GENERIC_WRITE;

}  // namespace

TEST(Overlapped, FileWorksWhereTheRecordSaysAndACopyGoesOn) {
  scratch_folder const scratch;
  std::wstring const name = (scratch.path() / "file").native();
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

  // A synchronous handle works at once, and where the record says, too.
  file.CloseHandle();
  file.OpenFile(name.c_str(), both, 0, OPEN_EXISTING);
  EXPECT_EQ(file.WriteFile("text", 4), 4u);
  EXPECT_EQ(moved(), 4u);
  file.SetOffset(0x1'0000'006E);
  EXPECT_EQ(system_code([&] { file.ReadFile(text, 1); }), ERROR_HANDLE_EOF);
}

TEST(Overlapped, EventIsDuplicatedAndClosed) {
  TEvent event;
  TOverlappedFile file;
  Watch watch;
  auto const calls_of_setting = [&](void* what) {
    watch.calls.clear();
    EXPECT_EQ(system_code([&] { file.SetEvent(what); }),
              watch.failing == "DuplicateHandle" ? injected_code : -1);
    return watch.calls;
  };
  std::string const duplication = "DuplicateHandle(process, handle, process, out, 0, 0, 2)";
  EXPECT_EQ(calls_of_setting(nullptr), "");
  EXPECT_EQ(calls_of_setting(event), duplication);
  EXPECT_NE(file.hEvent, static_cast<void*>(event));
  EXPECT_EQ(calls_of_setting(event), "CloseHandle(handle)" + duplication);
  watch.failing = "DuplicateHandle";
  EXPECT_EQ(calls_of_setting(event), "CloseHandle(handle)" + duplication);
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
