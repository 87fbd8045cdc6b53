#include "velt/os/FileMapping.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <memory>
#include <string>

#include "tests/os/ScratchFile.h"
#include "tests/support/Expect.h"
#include "velt/os/File.h"

using velt_test::system_code;

namespace {

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

}  // namespace

TEST(FileMapping, OfAFileIsTheFileAndWrittenOnlyIfThatMayBe) {
  velt_test::ScratchFile const scratch;
  auto const name = L"velt-os-" + std::to_wstring(GetCurrentProcessId());
  TFile(scratch.wide.c_str(), GENERIC_WRITE, 0, CREATE_ALWAYS).WriteFile("some text", 9);
  {
    TFile const file(scratch.wide.c_str(), GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING);
    TFileMapping mapping, again;
    mapping.CreateFileMappingW(PAGE_READWRITE, file, name.c_str());
    again.CreateFileMappingW(PAGE_READWRITE, 4096, name.c_str());
    std::memcpy(view_of(again, FILE_MAP_WRITE).get(), "more", 4);
  }
  TFile const file(scratch.wide.c_str(), GENERIC_READ, 0, OPEN_EXISTING);
  TFileMapping mapping;
  EXPECT_EQ(system_code([&] { mapping.CreateFileMappingW(PAGE_READWRITE, file, L""); }),
            ERROR_ACCESS_DENIED);
  mapping.CreateFileMappingW(PAGE_READONLY, file, L"");
  EXPECT_EQ(system_code([&] { mapping.MapViewOfFile(FILE_MAP_WRITE, 0, 0); }),
            ERROR_ACCESS_DENIED);
  EXPECT_EQ(std::string(view_of(mapping, FILE_MAP_READ).get(), 9), "more text");
}

TEST(FileMapping, BeyondFourGigabytes) {
  constexpr auto size = 0x1'0001'0000;
  TFileMapping mapping;
  mapping.CreateFileMappingW(PAGE_READWRITE | SEC_RESERVE, size, static_cast<char*>(nullptr));
  EXPECT_EQ(size_of(view_of(mapping, FILE_MAP_WRITE)), SIZE_T{size});
  auto const end = view_of(mapping, FILE_MAP_WRITE, 0xFFFF0000);
  EXPECT_EQ(size_of(end), 0x20000u);
  auto const part = view_of(mapping, FILE_MAP_WRITE, 0xFFFF0000, 100);
  EXPECT_EQ(size_of(part), 0x1000u);
  ASSERT_TRUE(VirtualAlloc(end.get(), 4096, MEM_COMMIT, PAGE_READWRITE));
  std::strcpy(end.get(), "far out");
  EXPECT_STREQ(part.get(), "far out");
}
