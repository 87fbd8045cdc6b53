// Pools at the end of processes, and of the library.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "tests/support/ChildProcess.h"

using namespace velt_test;

namespace {

struct Ending {
  ULONGLONG milliseconds;
  finished_process process;
};

Ending run(std::wstring const& program, std::vector<std::wstring> const& arguments) {
  scratch_folder const folder;
  ULONGLONG const begin = GetTickCount64();
  auto process = run_program(program, arguments, folder.path());
  return {GetTickCount64() - begin, std::move(process)};
}

}  // namespace

TEST(PoolAtEnd, ProcessEndsAtOnceWhileWorkersRun) {
  for (wchar_t const* const way : {L"return", L"exit_process", L"log", L"static", L"dll"})
    for (int round = 0; round < 3; ++round) {
      auto const ending = run(VELT_POOL_CHILD, {way, VELT_POOL_CLIENT});
      EXPECT_EQ(ending.process.status, 7u) << std::string(way, way + wcslen(way));
      EXPECT_LT(ending.milliseconds, 20'000u);
    }
}

TEST(PoolAtEnd, LibraryIsUnloadedWhenItsWorkersAreGone) {
  // One of them for ten seconds: what the idle rule says, by the real clock.
  for (wchar_t const* const way : {L"again", L"idle", L"running"}) {
    auto const ending = run(VELT_POOL_UNLOADER, {way, VELT_POOL_CLIENT, VELT_POOL_LIBRARY});
    EXPECT_EQ(ending.process.status, 0u)
        << std::string(way, way + wcslen(way)) << ": " << ending.process.output;
  }
}
