// The memory of holders: whichever thread frees them, none is lost, none is
// handed out twice, and what is kept for later is bounded.
#include <windows.h>

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "tests/locks/Agent.h"
#include "velt/base/ThreadSlotInternal.h"
#include "velt/value/HolderCacheInternal.h"
#include "velt/value/Value.h"

using velt::detail::kept_holder_blocks;
using velt::detail::live_holders;

namespace {

// What the depot and a thread may keep of one size of blocks.
constexpr int depot_limit = 64 * 128;
constexpr int thread_limit = 256;

velt::detail::thread_slot<_value_t> value_at_thread_end;

// The platform tells a program of a thread's end after all libraries.
void NTAPI use_value_at_thread_end(void*, DWORD reason, void*) {
  if (reason != DLL_THREAD_DETACH || !value_at_thread_end.get()) return;
  std::unique_ptr<_value_t> const value(value_at_thread_end.get());
  *value = _value_t("another one");
}

}  // namespace

[[gnu::section(".CRT$XLY"), gnu::used]] PIMAGE_TLS_CALLBACK thread_end_entry =
    use_value_at_thread_end;

TEST(HolderCache, MemoryDoesNotGrowWhenOneThreadMakesAndAnotherFrees) {
  auto const live = live_holders(), kept = kept_holder_blocks();
  velt_test::Agent maker, freer;
  std::vector<_value_t> values;
  for (int round = 0; round < 50; ++round) {
    maker.run([&] {
      for (int i = 0; i < 4000; ++i) values.emplace_back(i);
    });
    freer.run([&] {
      for (int i = 0; i < 4000; ++i) EXPECT_EQ(values[i].as_int(), i);
      values.clear();
    });
  }
  EXPECT_LE(kept_holder_blocks(), kept + depot_limit + 2 * thread_limit);
  EXPECT_EQ(live_holders(), live);
}

TEST(HolderCache, ThreadsThatUseValuesAfterTheLibraryHeardOfTheirEndKeepNothing) {
  // All that the depot has for texts: the first threads would take and free it.
  std::vector<_value_t> taken;
  for (int i = 0; i < depot_limit + thread_limit; ++i) taken.emplace_back("one");
  auto const live = live_holders(), kept = kept_holder_blocks();
  for (int n = 0; n < 20; ++n)
    std::jthread([] { value_at_thread_end.set(new _value_t("one")); });
  EXPECT_EQ(kept_holder_blocks(), kept);
  EXPECT_EQ(live_holders(), live);
}
