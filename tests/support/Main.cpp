#include <gtest/gtest.h>

#include "velt/diagnostics/Settings.h"
#include "velt/value/HolderCacheInternal.h"

namespace {

// Every value that a test program made is gone when its tests are.
struct NoLeakedValues : ::testing::Environment {
  void TearDown() override { EXPECT_EQ(velt::detail::live_holders(), 0); }
};

}  // namespace

int main(int count, char** arguments) {
  // A dump takes seconds: tests that want one switch them on.
  SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = false;
  ::testing::InitGoogleTest(&count, arguments);
  ::testing::AddGlobalTestEnvironment(new NoLeakedValues);
  return RUN_ALL_TESTS();
}
