// TThreadPool: the pool behind IThreadPool, as its workers see it.
#pragma once

#include <atomic>
#include <deque>
#include <set>
#include <string>

#include "velt/locks/Event.h"
#include "velt/locks/MultiLock.h"
#include "velt/locks/Semaphore.h"
#include "velt/threads/ThreadPool.h"

// A semaphore that calls the platform only where a worker sleeps or is to be woken.
// docs/model/pool.pml has the proof that no job is left to sleepers.
class TJobCounts {
public:
  explicit TJobCounts(int limit) : semaphore(limit, 0) {}

  // These two require the lock of the queue.
  void post();
  void drop_all();

  // A worker that does not get a count by try_take(), which spins for a while, sleeps.
  // If that returns false, or throws, it settles, once. True: it has a count.
  bool try_take() noexcept;
  bool sleep(unsigned int limit) { return semaphore.Lock(limit); }
  bool settle();

private:
  // Positive: so many are free. Negative: so many workers sleep, or are about to, and
  // have no count coming.
  std::atomic<int> counts = 0;
  TSemaphore semaphore;  // the counts for sleepers
};

// Whether the pool is idle, for threads that wait for it. The event is called only while
// one does, and brought in line by the next. docs/model/idle.pml has the proof that none
// waits for ever.
class TIdleState {
public:
  // These two require the lock of the queue.
  void set();
  void reset() noexcept { idle = false; }

  // One alertable wait, after some microseconds of spinning. Takes the lock of the queue.
  bool wait(TMultiLock& queue_lock, int timeout);

private:
  std::atomic<bool> idle = true;
  std::atomic<unsigned int> waiting = 0;  // raised under the lock of the queue
  bool shown = true;                      // the state of the event
  TEvent event{true, true};
};

// Neither lock is taken while the other is held. Both are held for a short time, and
// never while a client's code runs that might use the pool: jobs and workers that
// are dropped are released after the lock.
class TThreadPool : public IThreadPool, public IThreadOwner {
public:
  TThreadPool(int max, int min, int priority, int limit);
  TThreadPool(TThreadPool const&) = delete;
  TThreadPool& operator=(TThreadPool const&) = delete;
  ~TThreadPool() noexcept override;

  using IThreadPool::AddJob;
  bool AddJob(SmartPtr<IThreadJob> job) override;
  void Stop() override;
  void SetLimits(int maxTotalThreads, int minIdleThreads, int priority) override;
  bool WaitForIdle(int timeoutMs) override;
  void ClearQueue() override;

  SmartPtr<IThreadJob> GetJob() override;
  void ThreadFinished(SmartPtr<IThreadContext> context) override;
  void JobFinished(SmartPtr<IThreadJob> job) override;

  // The counts. They are read without a lock and need not agree.
  std::string describe() const override;

protected:
  virtual bool TryAddJob(SmartPtr<IThreadJob> job);
  virtual SmartPtr<IThreadJob> PopJob();
  virtual bool NeedMoreThreads();
  virtual bool CanThreadLeave();
  virtual bool TooManyThreads();
  virtual void CreateThread();

private:
  using worker = SmartPtr<IThreadContext>;

  static void retire(IThreadContext& context);
  bool create_thread_if_needed();
  bool take_count();
  SmartPtr<IThreadJob> pop_counted_job();
  void give_count_back();
  void interrupt_workers();
  void drop_workers();
  void queue_has_changed() noexcept;
  void workers_have_changed() noexcept;

  // Limits, compared as unsigned.
  std::atomic<int> MaxTotalThreads;
  std::atomic<int> MinIdleThreads;
  std::atomic<unsigned int> IdleThreads = 0;  // in the wait of GetJob()

protected:
  std::set<worker> Threads;
  TMultiLock ThreadsLock;
  std::deque<SmartPtr<IThreadJob>> JobQueue;
  TMultiLock QueueLock;

private:
  TJobCounts job_counts;  // one for each job in the queue

  // The worker that left last. A worker cannot wait for the end of its own thread,
  // so the next one to leave, or Stop(), destroys it.
  worker FinishedThread;

  std::atomic<int> ThreadPriority;
  int const JobQueueLimit;
  TIdleState no_jobs;                         // set as RunningJobs falls to 0
  std::atomic<unsigned int> RunningJobs = 0;  // queued or running

  // The sizes of the two containers, which others read without their locks.
  std::atomic<unsigned int> queue_size = 0;
  std::atomic<unsigned int> workers_size = 0;
};
