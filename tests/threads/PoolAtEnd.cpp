// Pools at the end of processes, and of the library.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "tests/support/ChildProcess.h"

using namespace velt_test;

namespace {

// One of them for ten seconds: what the idle rule says, by the real clock.
void expect_to_end(wchar_t const* program, wchar_t const* way, ULONGLONG limit) {
  scratch_folder const folder;
  ULONGLONG const begin = GetTickCount64();
  auto const process =
      run_program(program, {way, VELT_POOL_CLIENT, VELT_POOL_LIBRARY}, folder.path());
  EXPECT_EQ(process.status, 7u) << std::string(way, way + wcslen(way)) << process.output;
  EXPECT_LT(GetTickCount64() - begin, limit);
}

}  // namespace

TEST(PoolAtEnd, ProcessEndsAtOnceWhileWorkersRun) {
  for (int round = 0; round < 3; ++round) {
    for (auto const way : {L"return", L"exit_process", L"log", L"static"})
      expect_to_end(VELT_POOL_CHILD, way, 20'000);
    expect_to_end(VELT_POOL_UNLOADER, L"ending", 20'000);
  }
}

TEST(PoolAtEnd, LibraryIsUnloadedWhenItsWorkersAreGone) {
  for (auto const way : {L"again", L"idle", L"running"})
    expect_to_end(VELT_POOL_UNLOADER, way, 60'000);
}
