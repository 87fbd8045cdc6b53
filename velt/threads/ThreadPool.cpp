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

// Of a pool whose maker does not say.
constexpr int default_max = 50, default_min = 0, default_priority = 0, default_limit = 1'000'000;

// A hold that never waits on the events of its lock. A released count wakes a
// worker at once, which then wants the lock of the queue while the submitter still
// has it. Let that worker sleep on an event, and each job costs four calls of the
// platform instead of two: in a burst of empty jobs with one worker a job took
// 44 us by this hold and 190 to 900 us by the lock's own wait (medians of 9 bursts
// of 4,000 under Wine, on a busy machine of two cores). Both locks are held for some
// instructions, or while a thread is started, so that yields nearly always do; the
// sleep is for a holder that lost its processor for long, or was suspended.
//
// Where the lock's inner word stays taken for 200 yields, the attempt sleeps
// alertably, so that an interruption can come out of it.
template <bool (TMultiLock::*acquire)(unsigned int), bool is_report = false>
class short_hold {
public:
  explicit short_hold(TMultiLock& its_lock) : lock(its_lock) {
    for (int tries = 0; !try_once(); ++tries) {
      if (tries < tries_before_yield)
        YieldProcessor();
      else if (tries < tries_before_sleep)
        SwitchToThread();
      else
        Sleep(1);
    }
  }
  short_hold(short_hold const&) = delete;
  short_hold& operator=(short_hold const&) = delete;
  ~short_hold() { lock.Unlock(); }

private:
  static constexpr int tries_before_yield = 500, tries_before_sleep = 20'000;

  // A report that is given up half-way leaves the pool with numbers that are wrong
  // for good. It is finished, and the worker ends behind it: it knows that it was
  // interrupted.
  bool try_once() try {
    return (lock.*acquire)(0);
  } catch (EThreadInterrupt const&) {
    if (!is_report) throw;
    return false;
  }

  TMultiLock& lock;
};
using read_hold = short_hold<&TMultiLock::ReadLock>;
using write_hold = short_hold<&TMultiLock::WriteLock>;
using report_hold = short_hold<&TMultiLock::WriteLock, true>;

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
      JobSemaphore(limit, 0),
      ThreadPriority(priority),
      JobQueueLimit(limit),
      NoJobsEvent(true, true) {}

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

// The semaphore can be full before the queue is: a worker may take a count, lose
// its job to ClearQueue(), and take the next job instead, whose own count stays.
// A full semaphore has a count for each job, so the refusal does no harm.
bool TThreadPool::TryAddJob(SmartPtr<IThreadJob> job) {
  write_hold const hold(QueueLock);
  if (JobQueue.size() >= static_cast<unsigned int>(JobQueueLimit)) return false;
  JobQueue.push_back(std::move(job));  // first: it may throw
  queue_has_changed();
  if (++RunningJobs == 1) NoJobsEvent.ResetEvent();
  if (!ReleaseSemaphore(JobSemaphore, 1, nullptr) && GetLastError() != ERROR_TOO_MANY_POSTS)
    ThrowSystemException();
  return true;
}

SmartPtr<IThreadJob> TThreadPool::PopJob() {
  write_hold const hold(QueueLock);
  if (JobQueue.empty()) return nullptr;
  auto job = std::move(JobQueue.front());
  JobQueue.pop_front();
  queue_has_changed();
  return job;
}

void TThreadPool::JobFinished(SmartPtr<IThreadJob>) {
  report_hold const hold(QueueLock);
  if (--RunningJobs == 0) NoJobsEvent.SetEvent();
}

// Leaves NoJobsEvent as it is, so that WaitForIdle() is false until the next job has
// finished. The counts go before the jobs: a worker that took one in between finds
// the queue empty and goes back to its wait. The jobs are released without the lock,
// from the last to the first, since their destructors may use the pool.
void TThreadPool::ClearQueue() {
  std::deque<SmartPtr<IThreadJob>> dropped;
  {
    write_hold const hold(QueueLock);
    while (JobSemaphore.WaitForSingleObject(0, FALSE) == WAIT_OBJECT_0) {
    }
    RunningJobs -= static_cast<unsigned int>(JobQueue.size());
    JobQueue.swap(dropped);
    queue_has_changed();
  }
  while (!dropped.empty()) dropped.pop_back();
}

bool TThreadPool::WaitForIdle(int timeoutMs) { return NoJobsEvent.Signaled(timeoutMs); }

// The queue's size is read without its lock, so that no thread ever holds both, and
// may be stale. A wrong answer costs a thread too many, or one that comes with the
// next job.
bool TThreadPool::NeedMoreThreads() {
  read_hold const hold(ThreadsLock);
  return IdleThreads < queue_size && Threads.size() < as_limit(MaxTotalThreads);
}
bool TThreadPool::CanThreadLeave() { return IdleThreads > as_limit(MinIdleThreads); }
bool TThreadPool::TooManyThreads() {
  read_hold const hold(ThreadsLock);
  return Threads.size() > as_limit(MaxTotalThreads);
}

// The worker is in the set before it starts, so that it never runs unknown to the
// pool. If its thread cannot be started it stays there: the next Stop() drops it.
void TThreadPool::CreateThread() {
  write_hold const hold(ThreadsLock);
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
  write_hold const hold(ThreadsLock);
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
    if (JobSemaphore.Lock(idle_limit))
      if (auto job = pop_counted_job()) return job;
    if (CanThreadLeave()) return nullptr;
  }
}

// If an interruption comes in between, the count goes back: the job is still in the
// queue, and another worker must wake for it.
SmartPtr<IThreadJob> TThreadPool::pop_counted_job() try {
  return PopJob();
} catch (...) {
  ReleaseSemaphore(JobSemaphore, 1, nullptr);
  throw;
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
    read_hold const hold(ThreadsLock);
    workers.assign(Threads.begin(), Threads.end());
  }
  for (auto const& each : workers) each->Interrupt();
}

// Interrupts once more: if somebody has raised the limits meanwhile, there are new
// workers, which must not run on unknown to the pool.
void TThreadPool::drop_workers() {
  std::set<worker> dropped;
  {
    write_hold const hold(ThreadsLock);
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
