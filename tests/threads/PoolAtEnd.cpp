// Pools at the end of processes, and of the library.
#include <gtest/gtest.h>

#include "tests/support/ChildProcess.h"

TEST(PoolAtEnd, ProcessEndsAtOnceWhileWorkersRunAndTheLibraryWaitsForItsWorkers) {
  velt_test::scratch_folder const folder;
  for (auto const way : {L"return", L"exit", L"ending", L"return", L"exit", L"ending", L"return",
                         L"exit", L"ending", L"running", L"again", L"idle"}) {
    auto const process = velt_test::run_program(L"pool_user", {way}, folder.path());
    EXPECT_EQ(process.status, 7u) << way << process.output << process.errors;
  }
}
