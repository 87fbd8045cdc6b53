// The platform's headers stand first here, and last in File.cpp: the names of
// the operations must survive either.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>

#include "tests/os/ScratchFile.h"
#include "tests/support/OpenHandles.h"
#include "tests/support/Expect.h"
#include "velt/locks/Event.h"
#include "velt/os/Overlapped.h"

using velt_test::open_handles;
using velt_test::system_code;

namespace {

using TOverlappedFile = TOverlapped<TFile>;

constexpr int limit = 20'000;
constexpr DWORD both = GENERIC_READ | GENERIC_WRITE;

void* raw(THandle const& handle) { return handle; }

bool record_is_zero(OVERLAPPED const& record) {
  OVERLAPPED const zero = {};
  return std::memcmp(&record, &zero, sizeof zero) == 0;
}

// A real file, opened for overlapped work.
struct OverlappedFile : ::testing::Test {
  velt_test::ScratchFile scratch;
  TOverlappedFile file;

  ~OverlappedFile() noexcept override {}
  void SetUp() override {
    file.AttachHandle(CreateFileW(scratch.wide.c_str(), both, 0, nullptr, CREATE_ALWAYS,
                                  FILE_FLAG_OVERLAPPED, nullptr));
    ASSERT_TRUE(file.IsValidHandle());
  }

  // The bytes that the operation moved in all.
  unsigned long moved() {
    unsigned long count = 0;
    EXPECT_TRUE(file.GetOverlappedResult(count, true));
    EXPECT_TRUE(file.HasIoCompleted());
    return count;
  }
};

// Both ends of a pipe; the server's works beside the program.
struct OverlappedPipe : ::testing::Test {
  TOverlappedFile server;
  TFile client = TFile(DoNotInitialize);
  char text[16] = {};
  unsigned long moved = 77;

  ~OverlappedPipe() noexcept override {}
  void SetUp() override {
    std::string const name = "\\\\.\\pipe\\velt-" + std::to_string(GetCurrentProcessId());
    server.AttachHandle(CreateNamedPipeA(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                         PIPE_TYPE_BYTE, 1, 4096, 4096, 0, nullptr));
    client.OpenFile(name.c_str(), both, 0, OPEN_EXISTING);
  }

  // Starts a read that nothing answers.
  void start_reading() {
    EXPECT_EQ(server.ReadFile(text, sizeof text), 0u);
    EXPECT_FALSE(server.HasIoCompleted());
    EXPECT_FALSE(server.GetOverlappedResult(moved, false));
  }
};

}  // namespace

static_assert(std::is_base_of_v<OVERLAPPED, TOverlappedFile> &&
              std::is_base_of_v<TFile, TOverlappedFile>);
static_assert(sizeof(TOverlappedFile) == sizeof(OVERLAPPED) + sizeof(TFile));

TEST(Overlapped, StartsWithAZeroRecordWhichStandsInFront) {
  TOverlappedFile fresh, tagged(DoNotInitialize);
  TEvent event;
  TOverlappedFile sharing(static_cast<THandle const&>(event));
  for (auto const file : {&fresh, &tagged, &sharing}) {
    EXPECT_TRUE(record_is_zero(*file));
    EXPECT_EQ(static_cast<void*>(static_cast<OVERLAPPED*>(file)), static_cast<void*>(file));
    EXPECT_TRUE(file->HasIoCompleted());
  }
  EXPECT_EQ(raw(fresh), INVALID_HANDLE_VALUE);
  EXPECT_EQ(raw(tagged), INVALID_HANDLE_VALUE);
  EXPECT_NE(raw(sharing), raw(event));
  EXPECT_TRUE(sharing.IsValidHandle());
}

TEST(Overlapped, PendingIsDecidedByTheLowerHalfOfTheStatus) {
  TOverlappedFile file;
  file.Internal = 0x103;
  EXPECT_FALSE(file.HasIoCompleted());
  file.Internal = 0xFFFF'FFFF'0000'0103;
  EXPECT_FALSE(file.HasIoCompleted());
  file.Internal = 0x1'0000'0000;
  EXPECT_TRUE(file.HasIoCompleted());
}

TEST(Overlapped, CopyTakesTheRecordBitByBitAndDuplicatesTheFile) {
  long const before = open_handles();
  {
    TEvent event;
    TOverlappedFile file(static_cast<THandle const&>(event));
    file.SetOffset(0x1'0000'0002);
    file.Internal = 3;
    file.InternalHigh = 4;
    file.SetEvent(event);
    TOverlappedFile copy(file);
    TOverlappedFile assigned;
    assigned = file;
    for (auto const other : {&copy, &assigned}) {
      EXPECT_EQ(std::memcmp(static_cast<OVERLAPPED*>(other), static_cast<OVERLAPPED*>(&file),
                            sizeof(OVERLAPPED)),
                0);
      EXPECT_NE(raw(*other), raw(file));
      other->hEvent = nullptr;  // or it would be closed three times
    }
    EXPECT_EQ(open_handles(), before + 5);
  }
  EXPECT_EQ(open_handles(), before);
}

TEST_F(OverlappedFile, WritesAndReadsWhereTheRecordSays) {
  DWORD returned;
  DeviceIoControl(file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
  file.SetOffset(0x1'0000'0064);
  file.WriteFile("overlapped", 10);
  EXPECT_EQ(moved(), 10u);
  EXPECT_EQ(file.GetFileSize(), 0x1'0000'006Eu);
  char text[20] = {};
  unsigned long at_once = 0;
  file.SetOffset(0x1'0000'0068);
  file.ReadFile(text, sizeof text, at_once);
  EXPECT_EQ(moved(), 6u);
  EXPECT_STREQ(text, "lapped");
}

TEST_F(OverlappedFile, SynchronousHandleEndsAtOnce) {
  file.CloseHandle();
  file.OpenFile(scratch.narrow.c_str(), both, 0, OPEN_EXISTING);
  EXPECT_EQ(file.WriteFile("text", 4), 4u);
  EXPECT_TRUE(file.HasIoCompleted());
  file.SetOffset(1);
  char text[3];
  EXPECT_EQ(file.ReadFile(text, sizeof text), 3u);
  EXPECT_EQ(std::string(text, 3), "ext");
  EXPECT_EQ(moved(), 3u);
  file.SetOffset(50);
  EXPECT_EQ(system_code([&] { file.ReadFile(text, 1); }), ERROR_HANDLE_EOF);
}

TEST_F(OverlappedPipe, PendingReadIsCompletedByThePeer) {
  TEvent done;
  server.SetEvent(done);
  start_reading();
  EXPECT_FALSE(done.Signaled(0));
  client.WriteFile("answer", 6);
  EXPECT_TRUE(done.Signaled(limit));
  EXPECT_TRUE(server.HasIoCompleted());
  EXPECT_TRUE(server.GetOverlappedResult(moved, false));
  EXPECT_EQ(std::string(text, moved), "answer");
}

TEST_F(OverlappedPipe, CancelledReadThrowsWhenItsResultIsAskedFor) {
  start_reading();
  server.CancelIo();
  EXPECT_EQ(system_code([&] { server.GetOverlappedResult(moved, true); }),
            ERROR_OPERATION_ABORTED);
  EXPECT_TRUE(server.HasIoCompleted());
  client.WriteFile("later", 5);
  server.ReadFile(text, sizeof text);
  EXPECT_TRUE(server.GetOverlappedResult(moved, true));
  EXPECT_EQ(std::string(text, moved), "later");
}

TEST_F(OverlappedPipe, ClosedPeerEndsThePendingReadAndRefusesTheNext) {
  start_reading();
  client.CloseHandle();
  EXPECT_EQ(system_code([&] { server.GetOverlappedResult(moved, true); }), ERROR_BROKEN_PIPE);
  EXPECT_EQ(system_code([&] { server.ReadFile(text, sizeof text); }), ERROR_BROKEN_PIPE);
  EXPECT_EQ(system_code([&] { server.WriteFile("question", 8); }), ERROR_NO_DATA);
}
