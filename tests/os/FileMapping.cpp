#include "velt/os/FileMapping.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <memory>
#include <string>

#include "tests/os/Helper.h"
#include "tests/os/ScratchFile.h"
#include "tests/support/OpenHandles.h"
#include "tests/support/SystemCode.h"
#include "velt/os/File.h"

using velt_test::exit_code;
using velt_test::helper;
using velt_test::open_handles;
using velt_test::system_code;
using velt_test::unique;

namespace {

constexpr char const* no_name = nullptr;

struct Unmap {
  void operator()(char* view) const { UnmapViewOfFile(view); }
};
using View = std::unique_ptr<char, Unmap>;

View view_of(TFileMapping& mapping, unsigned long access, unsigned long offset = 0,
             unsigned long size = 0) {
  return View(static_cast<char*>(mapping.MapViewOfFile(access, offset, size)));
}

SIZE_T size_of(View const& view) {
  MEMORY_BASIC_INFORMATION information = {};
  VirtualQuery(view.get(), &information, sizeof information);
  return information.RegionSize;
}

void* raw(THandle const& handle) { return handle; }

struct FileMapping : ::testing::Test {
  velt_test::ScratchFile scratch;
  TFileMapping mapping;

  ~FileMapping() noexcept override {}
  TFile file_with(std::string const& contents, unsigned long access) const {
    TFile(scratch.wide.c_str(), GENERIC_WRITE, 0, CREATE_ALWAYS)
        .WriteFile(contents.data(), static_cast<DWORD>(contents.size()));
    return TFile(scratch.wide.c_str(), access, FILE_SHARE_READ, OPEN_EXISTING);
  }
};

}  // namespace

TEST_F(FileMapping, IsSharedByTwoProcesses) {
  std::string const name = unique("shared");
  mapping.CreateFileMappingW(PAGE_READWRITE, 4096, std::wstring(name.begin(), name.end()).c_str());
  auto const view = view_of(mapping, FILE_MAP_WRITE);
  std::strcpy(view.get(), "said here, raised there");
  EXPECT_EQ(exit_code(helper("raise " + name)), 0u);
  EXPECT_STREQ(view.get(), "SAID HERE, RAISED THERE");
}

TEST_F(FileMapping, ExistingNameOpensThatMapping) {
  std::string const name = unique("existing");
  EXPECT_EQ(system_code([&] { mapping.OpenFileMappingW(name.c_str(), FILE_MAP_READ); }),
            ERROR_FILE_NOT_FOUND);
  mapping.CreateFileMappingW(PAGE_READWRITE, 4096, name.c_str());
  std::strcpy(view_of(mapping, FILE_MAP_WRITE).get(), "kept");
  TFileMapping again;
  again.CreateFileMappingW(PAGE_READWRITE, 4096, name.c_str());
  EXPECT_STREQ(view_of(again, FILE_MAP_READ).get(), "kept");
}

TEST_F(FileMapping, OfAFileIsTheFile) {
  TFile file = file_with("some text", GENERIC_READ | GENERIC_WRITE);
  mapping.CreateFileMappingW(PAGE_READWRITE, file, no_name);
  {
    auto const view = view_of(mapping, FILE_MAP_WRITE);
    EXPECT_EQ(std::string(view.get(), 9), "some text");
    std::memcpy(view.get(), "more", 4);
    FlushViewOfFile(view.get(), 0);
  }
  char text[20];
  EXPECT_EQ(std::string(text, file.ReadFile(text, sizeof text)), "more text");
}

TEST_F(FileMapping, OfAReadOnlyFileIsNotWritten) {
  long const before = open_handles();
  {
    TFile const file = file_with("some text", GENERIC_READ);
    EXPECT_EQ(system_code([&] { mapping.CreateFileMappingW(PAGE_READWRITE, file, no_name); }),
              ERROR_ACCESS_DENIED);
    EXPECT_EQ(raw(mapping), nullptr);
    mapping.CreateFileMappingW(PAGE_READONLY, file, L"");
    EXPECT_EQ(system_code([&] { mapping.MapViewOfFile(FILE_MAP_WRITE, 0, 0); }),
              ERROR_ACCESS_DENIED);
    EXPECT_EQ(std::string(view_of(mapping, FILE_MAP_READ).get(), 9), "some text");
    mapping.CloseHandle();
  }
  EXPECT_EQ(open_handles(), before);
}

TEST_F(FileMapping, BeyondFourGigabytes) {
  constexpr auto size = 0x1'0001'0000;
  mapping.CreateFileMappingW(PAGE_READWRITE | SEC_RESERVE, size, no_name);
  EXPECT_EQ(size_of(view_of(mapping, FILE_MAP_WRITE)), SIZE_T{size});
  auto const end = view_of(mapping, FILE_MAP_WRITE, 0xFFFF0000);
  EXPECT_EQ(size_of(end), 0x20000u);
  auto const part = view_of(mapping, FILE_MAP_WRITE, 0xFFFF0000, 100);
  EXPECT_EQ(size_of(part), 0x1000u);
  ASSERT_TRUE(VirtualAlloc(end.get(), 4096, MEM_COMMIT, PAGE_READWRITE));
  std::strcpy(end.get(), "far out");
  EXPECT_STREQ(part.get(), "far out");
}
