#include "velt/threads/ThreadPool.h"

#include <windows.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "velt/base/LoadOrderInternal.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/text/Numbers.h"
#include "velt/threads/ThreadContext.h"
#include "velt/threads/ThreadPoolInternal.h"

namespace {

constexpr unsigned int idle_limit = 10'000;  // milliseconds

// Before a thread sleeps: some microseconds in all. What it waits for often comes while
// it would still be falling asleep.
constexpr int tries_before_sleep = 10;
constexpr int pauses_before_yield = 20;

template <class Condition>
void spin_until(Condition const& condition) {
  for (int tries = 0; tries < tries_before_sleep && !condition(); ++tries) {
    for (int pause = 0; pause < pauses_before_yield && !condition(); ++pause) YieldProcessor();
    SwitchToThread();
  }
}

// Of a pool whose maker does not say.
constexpr int default_max = 50, default_min = 0, default_priority = 0, default_limit = 1'000'000;

// Of a worker that reports something. A report that is given up half-way leaves the pool
// with numbers that are wrong for good. It is finished, and the worker ends behind it: it
// knows that it was interrupted.
class report_hold {
public:
  explicit report_hold(TMultiLock& its_lock) : lock(its_lock) {
    while (!try_once()) {
    }
  }
  report_hold(report_hold const&) = delete;
  report_hold& operator=(report_hold const&) = delete;
  ~report_hold() { lock.Unlock(); }

private:
  bool try_once() try {
    lock.WriteLock();
    return true;
  } catch (EThreadInterrupt const&) {
    return false;
  }

  TMultiLock& lock;
};

class count_while_alive {
public:
  explicit count_while_alive(std::atomic<unsigned int>& its_counter) : counter(its_counter) {
    ++counter;
  }
  count_while_alive(count_while_alive const&) = delete;
  count_while_alive& operator=(count_while_alive const&) = delete;
  ~count_while_alive() { --counter; }

private:
  std::atomic<unsigned int>& counter;
};

unsigned int as_limit(std::atomic<int> const& limit) noexcept {
  return static_cast<unsigned int>(limit.load());
}

std::string decimal(unsigned int count) { return itoa(static_cast<int>(count)); }

}  // namespace

// The semaphore can be full: a worker that was killed in its sleep leaves a count there,
// and so can one that settles while a count is on its way. Then nobody sleeps, so that
// the refusal does no harm.
void TJobCounts::post() {
  if (counts++ >= 0) return;
  if (!ReleaseSemaphore(semaphore, 1, nullptr) && GetLastError() != ERROR_TOO_MANY_POSTS)
    ThrowSystemException();
}

bool TJobCounts::try_take() noexcept {
  spin_until([this] { return counts > 0; });
  return counts-- > 0;
}

// A count that is on its way to the semaphore may come too late for this. It stays there
// for the next worker.
bool TJobCounts::settle() {
  for (int seen = counts; seen < 0;)
    if (counts.compare_exchange_weak(seen, seen + 1)) return false;
  return semaphore.WaitForSingleObject(0, FALSE) == WAIT_OBJECT_0;
}

// The free ones first. Each that comes out of the semaphore was meant for a sleeper,
// which has none coming then.
void TJobCounts::drop_all() {
  for (int seen = counts; seen > 0 && !counts.compare_exchange_weak(seen, 0);) {
  }
  while (semaphore.WaitForSingleObject(0, FALSE) == WAIT_OBJECT_0) --counts;
}

void TIdleState::set() {
  idle = true;
  if (waiting == 0 || shown) return;
  event.SetEvent();
  shown = true;
}

// The event may have stayed set since an earlier wait. A thread that still waits for it
// then has been woken.
bool TIdleState::wait(TMultiLock& queue_lock, int timeout) {
  if (timeout != 0) spin_until([this] { return idle.load(); });
  if (idle) return true;
  count_while_alive const counted = [&] {
    TLock const hold(queue_lock);
    bool const up = idle;
    if (shown != up) up ? event.SetEvent() : event.ResetEvent();
    shown = up;
    return count_while_alive(waiting);
  }();
  return event.Signaled(timeout);
}

IThreadPool::~IThreadPool() = default;

SmartPtr<IThreadPool> CreateNewThreadPool() {
  return CreateNewThreadPool(default_max, default_min);
}
SmartPtr<IThreadPool> CreateNewThreadPool(int max, int min) {
  return CreateNewThreadPool(max, min, default_priority);
}
SmartPtr<IThreadPool> CreateNewThreadPool(int max, int min, int priority) {
  return CreateNewThreadPool(max, min, priority, default_limit);
}
SmartPtr<IThreadPool> CreateNewThreadPool(int max, int min, int priority, int limit) {
  return MakeCounted<TThreadPool>(max, min, priority, limit);
}

TThreadPool::TThreadPool(int max, int min, int priority, int limit)
    : MaxTotalThreads(max),
      MinIdleThreads(min),
      job_counts(limit),
      ThreadPriority(priority),
      JobQueueLimit(limit) {}

// Waits for nobody: each worker keeps the pool alive, so there is none any more.
TThreadPool::~TThreadPool() noexcept { TThreadPool::Stop(); }

bool TThreadPool::AddJob(SmartPtr<IThreadJob> job) {
  if (!TryAddJob(std::move(job)))
    throw EGeneric({"Text", "Thread pool overflowed"},
                   {"JobQueueSize", static_cast<int>(queue_size)},
                   {"ThreadsSize", static_cast<int>(workers_size)});
  create_thread_if_needed();
  return queue_size <= as_limit(MaxTotalThreads);
}

bool TThreadPool::TryAddJob(SmartPtr<IThreadJob> job) {
  TLock const hold(QueueLock);
  if (JobQueue.size() >= static_cast<unsigned int>(JobQueueLimit)) return false;
  JobQueue.push_back(std::move(job));  // first: it may throw
  queue_has_changed();
  if (++RunningJobs == 1) no_jobs.reset();
  job_counts.post();
  return true;
}

SmartPtr<IThreadJob> TThreadPool::PopJob() {
  TLock const hold(QueueLock);
  if (JobQueue.empty()) return nullptr;
  auto job = std::move(JobQueue.front());
  JobQueue.pop_front();
  queue_has_changed();
  return job;
}

// With the lock only where the last job may have finished, since AddJob() changes the
// same under it.
void TThreadPool::JobFinished(SmartPtr<IThreadJob>) {
  for (auto running = RunningJobs.load(); running > 1;)
    if (RunningJobs.compare_exchange_weak(running, running - 1)) return;
  report_hold const hold(QueueLock);
  if (--RunningJobs == 0) no_jobs.set();
}

// Leaves `no_jobs` as it is, so that WaitForIdle() is false until the next job has
// finished. The counts go before the jobs: a worker that took one in between finds
// the queue empty and goes back to its wait. The jobs are released without the lock,
// from the last to the first, since their destructors may use the pool.
void TThreadPool::ClearQueue() {
  std::deque<SmartPtr<IThreadJob>> dropped;
  {
    TLock const hold(QueueLock);
    job_counts.drop_all();
    RunningJobs -= static_cast<unsigned int>(JobQueue.size());
    JobQueue.swap(dropped);
    queue_has_changed();
  }
  while (!dropped.empty()) dropped.pop_back();
}

bool TThreadPool::WaitForIdle(int timeoutMs) { return no_jobs.wait(QueueLock, timeoutMs); }

// The sizes are read without their locks and may be stale. A wrong answer costs a thread
// too many, or one that comes with the next job.
bool TThreadPool::NeedMoreThreads() {
  return IdleThreads < queue_size && workers_size < as_limit(MaxTotalThreads);
}
bool TThreadPool::CanThreadLeave() { return IdleThreads > as_limit(MinIdleThreads); }
bool TThreadPool::TooManyThreads() { return workers_size > as_limit(MaxTotalThreads); }

// The worker is in the set before it starts, so that it never runs unknown to the
// pool. If its thread cannot be started it stays there: the next Stop() drops it.
void TThreadPool::CreateThread() {
  TLock const hold(ThreadsLock);
  auto const created = CreateNewThreadContext(this);
  Threads.insert(created);
  workers_have_changed();
  created->Start();
  if (int const priority = ThreadPriority) created->SetPriority(priority);
}

// Asks again under the lock: a Stop() may have come in between, or another job have
// taken the last place.
bool TThreadPool::create_thread_if_needed() {
  if (!NeedMoreThreads()) return false;
  TLock const hold(ThreadsLock);
  if (!NeedMoreThreads()) return false;
  CreateThread();
  return true;
}

// A lowered maximum sends a worker away when it comes back from a job, not in its
// idle wait. That wait is where an interruption is meant to arrive. The worker
// counts as idle until it has its job, or has decided to leave, so that an AddJob()
// meanwhile does not start another one beside it.
SmartPtr<IThreadJob> TThreadPool::GetJob() {
  if (TooManyThreads()) return nullptr;
  for (;;) {
    count_while_alive const idle(IdleThreads);
    if (take_count())
      if (auto job = pop_counted_job()) return job;
    if (CanThreadLeave()) return nullptr;
  }
}

// If an interruption comes out of the wait, or before the job is there, the count goes
// back: the job is still in the queue, and another worker must wake for it.
bool TThreadPool::take_count() {
  if (job_counts.try_take()) return true;
  try {
    if (job_counts.sleep(idle_limit)) return true;
  } catch (...) {
    if (job_counts.settle()) give_count_back();
    throw;
  }
  return job_counts.settle();
}

SmartPtr<IThreadJob> TThreadPool::pop_counted_job() try {
  return PopJob();
} catch (...) {
  give_count_back();
  throw;
}

void TThreadPool::give_count_back() {
  report_hold const hold(QueueLock);
  job_counts.post();
}

void TThreadPool::retire(IThreadContext& context) {
  static_cast<TThreadContext&>(context).retire();
}

// The worker that left before is destroyed after the hold: its destructor waits for
// its thread, which may still want the lock.
void TThreadPool::ThreadFinished(SmartPtr<IThreadContext> context) {
  worker left_before;
  report_hold const hold(ThreadsLock);
  if (Threads.erase(context) != 0) {
    workers_have_changed();
    retire(*context);
    left_before = FinishedThread.exchange(context);
  }
  context.reset();
  // Jobs may wait that nobody else would take.
  if (Threads.empty() && NeedMoreThreads()) CreateThread();
}

void TThreadPool::SetLimits(int maxTotalThreads, int minIdleThreads, int priority) {
  MaxTotalThreads.exchange(maxTotalThreads);
  MinIdleThreads.exchange(minIdleThreads);
  ThreadPriority = priority;
  while (create_thread_if_needed()) {
  }
}

// The limits come first: workers that finish a job from now on leave by themselves,
// and AddJob() starts no other. The queue is cleared a second time for jobs that
// came while the workers were interrupted. At the end of the process the other
// threads are gone, perhaps with a lock of the pool.
void TThreadPool::Stop() {
  if (velt::detail::process_ends()) return;
  MinIdleThreads.exchange(0);
  MaxTotalThreads.exchange(0);
  TThreadPool::ClearQueue();
  interrupt_workers();
  TThreadPool::ClearQueue();
  drop_workers();
}

// Without the lock, which a worker may want before it ends.
void TThreadPool::interrupt_workers() {
  std::vector<worker> workers;
  {
    TReadLock const hold(ThreadsLock);
    workers.assign(Threads.begin(), Threads.end());
  }
  for (auto const& each : workers) each->Interrupt();
}

// Interrupts once more: if somebody has raised the limits meanwhile, there are new
// workers, which must not run on unknown to the pool.
void TThreadPool::drop_workers() {
  std::set<worker> dropped;
  {
    TLock const hold(ThreadsLock);
    Threads.swap(dropped);
    workers_have_changed();
  }
  for (auto const& each : dropped) {
    retire(*each);
    each->Interrupt();
  }
  dropped.clear();
  FinishedThread.reset();
}

void TThreadPool::queue_has_changed() noexcept {
  queue_size = static_cast<unsigned int>(JobQueue.size());
}
void TThreadPool::workers_have_changed() noexcept {
  workers_size = static_cast<unsigned int>(Threads.size());
}

std::string TThreadPool::describe() const {
  auto const address = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(this));
  return "Thread Pool 0x" + itoa(static_cast<int>(address), 16) +
         " RunningJobs=" + decimal(RunningJobs) + " Threads=" + decimal(workers_size) +
         " Queue=" + decimal(queue_size) + " Idle=" + decimal(IdleThreads) +
         " MaxTotalThreads=" + itoa(MaxTotalThreads) + " MinIdleThreads=" + itoa(MinIdleThreads);
}
