#include <gtest/gtest.h>

#include "velt/value/HolderCount.h"

namespace {

// Every value that a test program made is gone when its tests are.
struct NoLeakedValues : ::testing::Environment {
  void TearDown() override { EXPECT_EQ(velt::detail::live_holders(), 0); }
};

}  // namespace

int main(int count, char** arguments) {
  ::testing::InitGoogleTest(&count, arguments);
  ::testing::AddGlobalTestEnvironment(new NoLeakedValues);
  return RUN_ALL_TESTS();
}
