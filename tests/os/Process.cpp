#include "velt/os/Process.h"

#include <gtest/gtest.h>
#include <windows.h>

#include "tests/support/OpenHandles.h"
#include "tests/support/Expect.h"

using namespace velt_test;

namespace {

constexpr DWORD limit = 20'000;

// 259, as of a process that runs, if it does not end in time.
DWORD exit_code(TProcess const& process) {
  DWORD code = STILL_ACTIVE;
  process.WaitForSingleObject(limit, FALSE);
  GetExitCodeProcess(process, &code);
  return code;
}

}  // namespace

TEST(Process, IsKilled) {
  TProcess process, none;
  process.CreateProcessW(L"cmd /c exit", CREATE_SUSPENDED);
  EXPECT_EQ(process.WaitForSingleObject(0, FALSE), DWORD{WAIT_TIMEOUT});
  process.TerminateProcess(-3);
  EXPECT_EQ(exit_code(process), 0xFFFFFFFDu);
  none.AttachHandle(nullptr);
  EXPECT_EQ(system_code([&] { none.TerminateProcess(0); }), ERROR_INVALID_HANDLE);
}

TEST(Process, NewOneIsStoredOverTheOldIfItStarts) {
  long const before = open_handles();
  {
    TProcess process, old;
    process.CreateProcessW("cmd /c exit 1", 0);
    EXPECT_EQ(system_code([&] { process.CreateProcessW("velt-no-such-program", 0); }),
              ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(open_handles(), before + 1) << "that of the process, and none of its thread";
    old.AttachHandle(process);
    process.CreateProcessW(L"cmd /c exit 2", 0);
    EXPECT_EQ(exit_code(old), 1u);
    EXPECT_EQ(exit_code(process), 2u);
  }
  EXPECT_EQ(open_handles(), before);
}
