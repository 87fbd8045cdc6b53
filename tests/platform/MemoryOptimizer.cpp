#include "velt/diagnostics/MemoryOptimizer.h"

#include <gtest/gtest.h>
#include <windows.h>

#include "tests/support/Imports.h"

TEST(MemoryOptimizer, AsksForLowFragmentationOnNewSystemsOnly) {
  for (DWORD const version : {40, 50, 51, 60}) {
    int heaps = 0;
    velt_test::Replacement const asked{VELT_CALL(GetVersionExW), [&](auto, OSVERSIONINFOW* result) {
                                         result->dwPlatformId = VER_PLATFORM_WIN32_NT;
                                         result->dwMajorVersion = version / 10;
                                         result->dwMinorVersion = version % 10;
                                         return TRUE;
                                       }};
    velt_test::Replacement const set{VELT_CALL(HeapSetInformation),
                                     [&](auto...) -> BOOL { return ++heaps; }};
    MemoryOptimizer const optimizer;
    EXPECT_EQ(heaps, version > 50 ? 2 : 0);
  }
}
