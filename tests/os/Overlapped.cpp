// The platform's headers stand first here, and last in File.cpp: the names of
// the operations must survive either.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/os/ScratchFile.h"
#include "tests/support/OpenHandles.h"
#include "tests/support/SystemCode.h"
#include "velt/locks/Event.h"
#include "velt/os/Overlapped.h"

using namespace velt_test;

namespace {

using TOverlappedFile = TOverlapped<TFile>;

constexpr DWORD both = GENERIC_READ | GENERIC_WRITE;

void* raw(THandle const& handle) { return handle; }

}  // namespace

TEST(Overlapped, StartsWithAZeroRecordWhichStandsInFront) {
  TOverlappedFile fresh, tagged(DoNotInitialize);
  TEvent event;
  TOverlappedFile sharing(static_cast<THandle const&>(event));
  OVERLAPPED const zero = {};
  for (auto const file : {&fresh, &tagged, &sharing}) {
    EXPECT_EQ(std::memcmp(file, &zero, sizeof zero), 0);
    EXPECT_TRUE(file->HasIoCompleted());
    EXPECT_EQ(file->IsValidHandle(), file == &sharing);
  }
  EXPECT_NE(raw(sharing), raw(event));
}

TEST(Overlapped, PendingIsDecidedByTheLowerHalfOfTheStatus) {
  TOverlappedFile file;
  for (ULONG_PTR const status : {0x103ull, 0xFFFF'FFFF'0000'0103ull, 0x1'0000'0000ull}) {
    file.Internal = status;
    EXPECT_EQ(file.HasIoCompleted(), status == 0x1'0000'0000);
  }
}

TEST(Overlapped, CopyTakesTheRecordBitByBitAndDuplicatesTheFile) {
  long const before = open_handles();
  {
    TEvent event;
    TOverlappedFile file(static_cast<THandle const&>(event)), assigned;
    file.SetOffset(0x1'0000'0002);
    file.InternalHigh = 4;
    file.SetEvent(event);
    TOverlappedFile copy(file);
    assigned = file;
    for (auto const other : {&copy, &assigned}) {
      EXPECT_EQ(std::memcmp(other, &file, sizeof(OVERLAPPED)), 0);
      EXPECT_NE(raw(*other), raw(file));
      other->hEvent = nullptr;  // or it would be closed three times
    }
    EXPECT_EQ(open_handles(), before + 5);
  }
  EXPECT_EQ(open_handles(), before);
}

TEST(Overlapped, FileIsReadAndWrittenWhereTheRecordSays) {
  ScratchFile const scratch;
  TOverlappedFile file;
  for (DWORD const flags : {DWORD{FILE_FLAG_OVERLAPPED}, DWORD{0}}) {
    file.AttachHandle(CreateFileW(scratch.wide.c_str(), both, 0, nullptr, CREATE_ALWAYS, flags,
                                  nullptr));
    DWORD returned;
    DeviceIoControl(file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
    file.SetOffset(0x1'0000'0064);
    file.WriteFile("overlapped", 10);
    unsigned long moved = 0, at_once = 0;
    EXPECT_TRUE(file.GetOverlappedResult(moved, true));
    EXPECT_EQ(moved, 10u);
    EXPECT_EQ(file.GetFileSize(), 0x1'0000'006Eu);
    char text[20] = {};
    file.SetOffset(0x1'0000'0068);
    file.ReadFile(text, sizeof text, at_once);
    EXPECT_TRUE(file.GetOverlappedResult(moved, true));
    EXPECT_TRUE(file.HasIoCompleted());
    EXPECT_EQ(std::string(text, moved), "lapped");
    EXPECT_TRUE(flags || at_once == moved);
    file.CloseHandle();
  }
}

// Both ends of a pipe; the server's works beside the program.
TEST(Overlapped, PendingReadIsCompletedOrBrokenByThePeer) {
  std::string const name = "\\\\.\\pipe\\velt-" + std::to_string(GetCurrentProcessId());
  TOverlappedFile server;
  TFile client(DoNotInitialize);
  server.AttachHandle(CreateNamedPipeA(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                       PIPE_TYPE_BYTE, 1, 4096, 4096, 0, nullptr));
  client.OpenFile(name.c_str(), both, 0, OPEN_EXISTING);
  TEvent done;
  server.SetEvent(done);
  char text[16];
  unsigned long moved = 77;
  auto const start_reading = [&] {
    EXPECT_EQ(server.ReadFile(text, sizeof text), 0u);
    EXPECT_FALSE(server.HasIoCompleted());
    EXPECT_FALSE(server.GetOverlappedResult(moved, false));
  };
  start_reading();
  EXPECT_FALSE(done.Signaled(0));
  client.WriteFile("answer", 6);
  EXPECT_TRUE(done.Signaled(20'000));
  EXPECT_TRUE(server.HasIoCompleted());
  EXPECT_TRUE(server.GetOverlappedResult(moved, false));
  EXPECT_EQ(std::string(text, moved), "answer");
  start_reading();
  client.CloseHandle();
  EXPECT_EQ(system_code([&] { server.GetOverlappedResult(moved, true); }), ERROR_BROKEN_PIPE);
  EXPECT_EQ(system_code([&] { server.ReadFile(text, sizeof text); }), ERROR_BROKEN_PIPE);
}
