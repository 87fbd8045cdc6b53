#include "velt/os/File.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "tests/os/ScratchFile.h"
#include "tests/support/SystemCode.h"

using velt_test::system_code;

namespace {

constexpr DWORD both = GENERIC_READ | GENERIC_WRITE;
struct File : ::testing::Test {
  velt_test::ScratchFile scratch;

  TFile made() const { return TFile(scratch.narrow.c_str(), both, 0, CREATE_ALWAYS); }
};

std::string read(TFile& file, DWORD size) {
  std::string result(size, '\0');
  result.resize(file.ReadFile(result.data(), size));
  return result;
}

}  // namespace

TEST_F(File, ReadsWhatItWrote) {
  TFile file = made();
  EXPECT_EQ(file.WriteFile("some text", 9), 9u);
  unsigned long moved = 77;
  file.WriteFile(" and more", 9, moved);
  EXPECT_EQ(moved, 9u);
  file.FlushFile();
  EXPECT_EQ(file.SetFilePointer(5, FILE_BEGIN), 5u);
  EXPECT_EQ(read(file, 4), "text");
  char rest[20];
  file.ReadFile(rest, sizeof rest, moved);
  EXPECT_EQ(std::string(rest, moved), " and more");
  EXPECT_EQ(read(file, 10), "") << "the end of the file is no failure";
}

TEST_F(File, DispositionDecidesAndNotTheNameOfTheOperation) {
  TFile file(DoNotInitialize);
  EXPECT_EQ(system_code([&] { file.CreateFileW(scratch.wide.c_str(), both, 0, OPEN_EXISTING); }),
            ERROR_FILE_NOT_FOUND);
  file.OpenFile(scratch.wide.c_str(), both, 0, CREATE_NEW);
  EXPECT_EQ(file.WriteFile("1", 1), 1u);
  EXPECT_EQ(system_code([&] { TFile(scratch.narrow.c_str(), both, 0, OPEN_EXISTING); }),
            ERROR_SHARING_VIOLATION);
  file.CloseHandle();
  EXPECT_EQ(system_code([&] { TFile(scratch.wide.c_str(), both, 0, CREATE_NEW); }),
            ERROR_FILE_EXISTS);
  file.OpenFile(scratch.narrow.c_str(), GENERIC_READ, 0, OPEN_EXISTING);
  EXPECT_EQ(read(file, 5), "1");
  EXPECT_EQ(system_code([&] { file.WriteFile("2", 1); }), ERROR_ACCESS_DENIED);
}

TEST_F(File, SizesAndPositionsBeyondFourGigabytes) {
  TFile file = made();
  file.WriteFile("abc", 3);
  EXPECT_EQ(file.SetFilePointerEx(-1, FILE_END), 2u);
  EXPECT_EQ(file.SetFilePointerEx(0x1'2345'6789, FILE_BEGIN), 0x1'2345'6789u);
  EXPECT_EQ(file.SetFilePointerEx(1, FILE_CURRENT), 0x1'2345'678Au);
  EXPECT_EQ(file.SetFilePointer(0, FILE_BEGIN), 0u);
  EXPECT_EQ(system_code([&] { file.SetFilePointerEx(-1, FILE_BEGIN); }), ERROR_NEGATIVE_SEEK);
  EXPECT_EQ(file.SetFilePointer(-1, FILE_BEGIN), 0xFFFFFFFFu);
  EXPECT_EQ(read(file, 3), "abc") << "a failed move moved";
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
