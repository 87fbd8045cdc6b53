// The memory of holders: whichever thread frees them, none is lost, none is
// handed out twice, and what is kept for later is bounded.
#include <windows.h>

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "tests/locks/Agent.h"
#include "velt/base/ThreadSlotInternal.h"
#include "velt/value/HolderCacheInternal.h"
#include "velt/value/Value.h"

namespace {

// What the depot and a thread may keep of one size of blocks.
constexpr int depot_limit = 64 * 128;
constexpr int thread_limit = 256;

void in_a_thread(auto action) { std::jthread{action}; }

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
  auto const holders_before = velt::detail::live_holders();
  auto const kept_before = velt::detail::kept_holder_blocks();
  velt_test::Agent maker("the maker"), freer("the freer");
  std::vector<_value_t> values;
  for (int round = 0; round < 50; ++round) {
    maker.run([&] {
      for (int i = 0; i < 4000; ++i) values.emplace_back(i);
    });
    freer.run([&] { values.clear(); });
  }
  EXPECT_EQ(velt::detail::live_holders(), holders_before);
  EXPECT_LE(velt::detail::kept_holder_blocks(), kept_before + depot_limit + 2 * thread_limit);
}

TEST(HolderCache, ThreadsThatUseValuesAfterTheLibraryHeardOfTheirEndKeepNothing) {
  auto const kept = velt::detail::kept_holder_blocks(), live = velt::detail::live_holders();
  for (int n = 0; n < 20; ++n)
    in_a_thread([] { value_at_thread_end.set(new _value_t("one")); });
  EXPECT_EQ(velt::detail::kept_holder_blocks(), kept);
  EXPECT_EQ(velt::detail::live_holders(), live);
}

TEST(HolderCache, MakingAValueLeavesTheLastErrorAlone) {
  in_a_thread([] {
    SetLastError(1234);
    { _value_t const first_of_this_thread = 1; }
    EXPECT_EQ(GetLastError(), 1234u);
  });
}

TEST(HolderCache, ThreadsExchangeValuesAtRandom) {
  auto const before = velt::detail::live_holders();
  constexpr unsigned slots = 64;
  struct exchange {
    std::mutex lock;
    _value_t value;
  };
  std::vector<exchange> places(slots);
  {
    std::vector<std::jthread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed)
      threads.emplace_back([&places, seed] {
        std::minstd_rand random(seed);
        for (int n = 0; n < 50'000; ++n) {
          _value_t mine;
          switch (random() % 4) {
            case 0: mine = n; break;
            case 1: mine = std::string("text"); break;
            case 2: mine = std::vector<int>{n, n}; break;
            default: break;
          }
          auto& place = places[random() % slots];
          std::lock_guard const guard(place.lock);
          if (random() % 2 == 0)
            swap(place.value, mine);
          else
            mine = place.value;
        }
      });
  }
  places.clear();
  EXPECT_EQ(velt::detail::live_holders(), before);
}
