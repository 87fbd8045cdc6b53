#include <gtest/gtest.h>

#include "tests/support/SkippedValues.h"
#include "velt/diagnostics/Settings.h"
#include "velt/value/HolderCacheInternal.h"

namespace {

// Every value that a test program made is gone when its tests are, but for those
// in frames that an overflow of the stack skipped.
struct NoLeakedValues : ::testing::Environment {
  void TearDown() override { EXPECT_EQ(velt::detail::live_holders(), velt_test::skipped_values); }
};

}  // namespace

int main(int count, char** arguments) {
  // A dump takes seconds: tests that want one switch them on.
  SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = false;
  ::testing::InitGoogleTest(&count, arguments);
  ::testing::AddGlobalTestEnvironment(new NoLeakedValues);
  return RUN_ALL_TESTS();
}
