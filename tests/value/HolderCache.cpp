// The memory of holders: whichever thread frees them, none is lost, none is
// handed out twice, and what is kept for later is bounded.
#include <windows.h>

#include <gtest/gtest.h>

#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "velt/value/HolderCount.h"
#include "velt/value/Value.h"

namespace {

// What a store and a thread may keep of one size of blocks.
constexpr int store_limit = 64 * 128;
constexpr int thread_limit = 256;

void in_a_thread(auto action) { std::jthread{action}; }

// Lets one waiting thread go on. The barriers and semaphores of this standard
// library are not for it: once in some thousands of waits they sleep on.
class Signal {
public:
  Signal() = default;
  Signal(Signal const&) = delete;
  Signal& operator=(Signal const&) = delete;
  ~Signal() { CloseHandle(event); }

  void set() { SetEvent(event); }
  void wait() { WaitForSingleObject(event, INFINITE); }

private:
  HANDLE const event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
};

}  // namespace

TEST(HolderCache, MemoryDoesNotGrowWhenOneThreadMakesAndAnotherFrees) {
  constexpr int blocks = 4000, rounds = 50;
  auto const before = velt::detail::kept_holder_blocks();
  std::vector<_value_t> values;
  Signal made, freed;
  __int64 at_the_end = 0;
  {
    std::jthread const maker([&] {
      for (int round = 0; round < rounds; ++round) {
        for (int i = 0; i < blocks; ++i) values.emplace_back(i);
        made.set();
        freed.wait();
      }
    });
    std::jthread const freer([&] {
      for (int round = 0; round < rounds; ++round) {
        made.wait();
        values.clear();
        if (round == rounds - 1) at_the_end = velt::detail::kept_holder_blocks();
        freed.set();
      }
    });
  }
  EXPECT_LE(at_the_end, before + store_limit + 2 * thread_limit);
}

TEST(HolderCache, EndedThreadsKeepNothingAndTheStoreNotEverything) {
  auto const before = velt::detail::kept_holder_blocks();
  in_a_thread([] {
    std::vector<_value_t> values;
    for (int i = 0; i < 50'000; ++i) values.emplace_back(1.5);
  });
  EXPECT_LE(velt::detail::kept_holder_blocks(), before + store_limit);
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
          swap(place.value, mine);
        }
      });
  }
  places.clear();
  EXPECT_EQ(velt::detail::live_holders(), before);
}
