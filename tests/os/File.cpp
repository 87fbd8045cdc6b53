#include "velt/os/File.h"

#include <gtest/gtest.h>
#include <windows.h>

#include "tests/os/ScratchFile.h"
#include "tests/support/Expect.h"

TEST(File, SizesAndPositionsBeyondFourGigabytes) {
  velt_test::ScratchFile const scratch;
  TFile file(scratch.narrow.c_str(), GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS);
  file.WriteFile("abc", 3);
  EXPECT_EQ(file.SetFilePointerEx(-1, FILE_END), 2u);
  EXPECT_EQ(file.SetFilePointerEx(0x1'2345'6789, FILE_BEGIN), 0x1'2345'6789u);
  EXPECT_EQ(file.SetFilePointerEx(1, FILE_CURRENT), 0x1'2345'678Au);
  EXPECT_EQ(file.SetFilePointer(1, FILE_BEGIN), 1u);
  EXPECT_EQ(velt_test::system_code([&] { file.SetFilePointerEx(-1, FILE_BEGIN); }),
            ERROR_NEGATIVE_SEEK);
  EXPECT_EQ(file.SetFilePointer(-1, FILE_BEGIN), 0xFFFFFFFFu);
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
