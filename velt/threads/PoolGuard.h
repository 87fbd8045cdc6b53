// TThreadPoolGuard: a pool that is stopped at the end of a scope, also if an exception
// leaves the scope. A pool and its workers keep each other alive, so a pool that nobody
// stops stays for good.
//
//   TThreadPoolGuard pool(CreateNewThreadPool(4, 0));
//   for (auto const& each : files) pool->AddJob([=] { compress(each); });
//   pool->WaitForIdle(-1);
#pragma once

#include <exception>
#include <utility>

#include "velt/threads/ThreadPool.h"

// Belongs to one thread, which must not be a worker of the pool.
class [[nodiscard]] TThreadPoolGuard {
public:
  // A null pointer makes a guard that does nothing.
  explicit TThreadPoolGuard(SmartPtr<IThreadPool> its_pool = CreateNewThreadPool()) noexcept
      : pool(std::move(its_pool)) {}
  TThreadPoolGuard(TThreadPoolGuard const&) = delete;
  TThreadPoolGuard& operator=(TThreadPoolGuard const&) = delete;

  // IThreadPool::Stop(): drops the jobs that wait and interrupts those that run. Call
  // WaitForIdle() before, if they are to be done. Throws what Stop() throws, unless an
  // exception is under way.
  ~TThreadPoolGuard() noexcept(false) {
    if (!pool) return;
    if (std::uncaught_exceptions() == exceptions_before) {
      pool->Stop();
      return;
    }
    try {
      pool->Stop();
    } catch (...) {
    }
  }

  // The pool that the guard stops.
  SmartPtr<IThreadPool> const& get() const noexcept { return pool; }
  IThreadPool* operator->() const noexcept { return pool.get(); }
  IThreadPool& operator*() const noexcept { return *pool; }

private:
  SmartPtr<IThreadPool> const pool;
  int const exceptions_before = std::uncaught_exceptions();
};
