#include "velt/os/Process.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "tests/os/Helper.h"
#include "tests/support/OpenHandles.h"
#include "tests/support/SystemCode.h"
#include "velt/locks/Event.h"

using velt_test::exit_code;
using velt_test::helper;
using velt_test::helper_command;
using velt_test::limit;
using velt_test::open_handles;
using velt_test::system_code;

TEST(Process, EndsByItself) {
  EXPECT_EQ(exit_code(helper("end 7")), 7u);
  auto const narrow = helper_command("end 9");
  TProcess process;
  process.CreateProcessW(std::wstring(narrow.begin(), narrow.end()).c_str(), 0);
  EXPECT_EQ(exit_code(process), 9u);
}

TEST(Process, IsKilled) {
  std::string const name = velt_test::unique("started");
  TEvent started(name.c_str(), false, false);
  TProcess process = helper("stay " + name);
  ASSERT_TRUE(started.Signaled(limit));
  EXPECT_EQ(process.WaitForSingleObject(0, FALSE), DWORD{WAIT_TIMEOUT});
  process.TerminateProcess(-3);
  EXPECT_EQ(exit_code(process), 0xFFFFFFFDu);
  TProcess none;
  none.AttachHandle(nullptr);
  EXPECT_EQ(system_code([&] { none.TerminateProcess(0); }), ERROR_INVALID_HANDLE);
}

TEST(Process, ThatCannotStartLeavesTheHandleAsItWas) {
  long const before = open_handles();
  {
    TProcess process = helper("end 5");
    void* const held = process;
    EXPECT_EQ(system_code([&] { process.CreateProcessW("velt-no-such-program", 0); }),
              ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(system_code([&] { process.CreateProcessW(L"velt-no-such-program", 0); }),
              ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(static_cast<void*>(process), held);
    EXPECT_EQ(exit_code(process), 5u);
    EXPECT_EQ(open_handles(), before + 1) << "that of the process, and none of its thread";
  }
  EXPECT_EQ(open_handles(), before);
}

TEST(Process, NewOneIsStoredOverTheOld) {
  TProcess process = helper("end 1"), old;
  old.AttachHandle(process);
  process.CreateProcessW(helper_command("end 2").c_str(), 0);
  EXPECT_EQ(exit_code(old), 1u);
  EXPECT_EQ(exit_code(process), 2u);
}
