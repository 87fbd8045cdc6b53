// Pools and locks at the end of processes, and of the library.
#include <gtest/gtest.h>
#include <windows.h>

#include "tests/support/ChildProcess.h"

namespace {

void expect_to_end(wchar_t const* way, ULONGLONG limit) {
  ULONGLONG const begin = GetTickCount64();
  auto const process = velt_test::run_program(L"user_at_end", {way}, L".");
  EXPECT_EQ(process.status, 7u) << way << process.output << process.errors;
  EXPECT_LT(GetTickCount64() - begin, limit) << way;
}

}  // namespace

TEST(AtEnd, ProcessEndsAtOnceWhileWorkersRunOrAThreadIsInsideAStaticLock) {
  for (int round = 0; round < 3; ++round)
    for (auto const way : {L"return", L"exit", L"lock"}) expect_to_end(way, 20'000);
}

TEST(AtEnd, LibraryIsUnloadedWhenItsWorkersAreGone) {
  for (auto const way : {L"stopped", L"idle", L"running"}) expect_to_end(way, 60'000);
}
