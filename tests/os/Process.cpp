#include "velt/os/Process.h"

#include <gtest/gtest.h>
#include <windows.h>

#include "tests/support/Expect.h"
#include "tests/support/OpenHandles.h"

using namespace velt_test;

namespace {

// 259, as of a process that runs, if it does not end in time.
DWORD exit_code(TProcess const& process) {
  DWORD code = STILL_ACTIVE;
  process.WaitForSingleObject(20'000, FALSE);
  GetExitCodeProcess(process, &code);
  return code;
}

}  // namespace

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
