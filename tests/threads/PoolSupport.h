// Jobs, and what a pool tells of itself.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <utility>

#include "tests/threads/Faults.h"
#include "tests/threads/Support.h"
#include "velt/threads/ThreadPool.h"

namespace velt_test {

class Job : public IThreadJob {
public:
  explicit Job(std::function<void()> its_work) : work(std::move(its_work)) {}
  void Run(SmartPtr<IThreadContext> const&) override { work(); }

private:
  std::function<void()> work;
};

inline SmartPtr<IThreadJob> job(std::function<void()> work) {
  return MakeCounted<Job>(std::move(work));
}

// Of the process. Each throw can get a dump, and the last one is the one that is
// kept.
class ThrowCounter {
public:
  ThrowCounter() { count = 0; }
  ThrowCounter(ThrowCounter const&) = delete;
  ~ThrowCounter() { RemoveVectoredExceptionHandler(handler); }

  static inline std::atomic<int> count = 0;

private:
  static LONG WINAPI note(EXCEPTION_POINTERS* pointers) {
    count += pointers->ExceptionRecord->ExceptionCode == 0x20474343;
    return EXCEPTION_CONTINUE_SEARCH;
  }
  void* const handler = AddVectoredExceptionHandler(1, note);
};

// Jobs that wait until they are let go, and can be interrupted meanwhile.
class Gate {
public:
  SmartPtr<IThreadJob> job() {
    return velt_test::job([this] {
      ++inside;
      open.WaitForSignal();
    });
  }

  std::atomic<int> inside = 0;
  TEvent open{true, false};
};

// What the status line of a pool says behind the word.
inline int count_of(SmartPtr<IThreadPool> const& pool, std::string const& word) {
  std::string const line = pool->describe();
  auto const place = line.find(" " + word + "=");
  return place == line.npos ? -1 : std::stoi(line.substr(place + word.size() + 2));
}

using PoolCounts = std::array<int, 4>;  // running jobs, threads, queued jobs, idle threads

inline PoolCounts counts_of(SmartPtr<IThreadPool> const& pool) {
  return {count_of(pool, "RunningJobs"), count_of(pool, "Threads"), count_of(pool, "Queue"),
          count_of(pool, "Idle")};
}

inline ::testing::AssertionResult become(SmartPtr<IThreadPool> const& pool, PoolCounts expected) {
  if (eventually([&] { return counts_of(pool) == expected; })) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << pool->describe();
}

// Stops its pool, after which nobody else refers to it.
class TestPool {
public:
  explicit TestPool(SmartPtr<IThreadPool> its_pool) : pool(std::move(its_pool)) {}
  TestPool(TestPool const&) = delete;
  TestPool& operator=(TestPool const&) = delete;
  ~TestPool() {
    pool->Stop();
    EXPECT_EQ(pool.use_count(), 1);
  }

  IThreadPool* operator->() const { return pool.get(); }
  operator SmartPtr<IThreadPool> const&() const { return pool; }

private:
  SmartPtr<IThreadPool> pool;
};

}  // namespace velt_test
