// The examples of docs/threads.md, run.
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/DocExamples.h"
#include "tests/threads/Support.h"
#include "velt/debug/DebugStream.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/Event.h"
#include "velt/locks/Lock.h"
#include "velt/locks/MultiLock.h"
#include "velt/locks/Mutex.h"
#include "velt/locks/Semaphore.h"
#include "velt/threads/ThreadClass.h"
#include "velt/threads/ThreadPool.h"
#include "velt/threads/ThreadTask.h"

using velt_test::Worker;

namespace {

// Sums up, on a thread of its own, what others give it.
class Adder final : public TThreadClass {
public:
  // Waits until the thread has let go of the object.
  ~Adder() {
    closed.Set();
    given.Unlock();
    if (IsValidHandle()) WaitForSingleObject(0xFFFFFFFF, false);
  }

  void add(int number) {
    {
      TLock guard(lock);
      numbers.push_back(number);
    }
    given.Unlock();
  }

  void ThreadBody() override {
    for (;;) {
      given.Lock();  // an interruption comes out of here
      if (closed.Signaled(0)) return;
      TLock guard(lock);
      sum += numbers.back();
      numbers.pop_back();
    }
  }

  std::atomic<int> sum = 0;

private:
  TMultiLock lock;
  std::vector<int> numbers;
  TSemaphore given{1'000, 0};
  TEvent closed;
};

bool is_prime(int candidate) {
  for (int divisor = 2; divisor * divisor <= candidate; ++divisor)
    if (candidate % divisor == 0) return false;
  return true;
}

int count_primes(int limit) {
  int count = 0;
  for (int candidate = 2; candidate < limit; ++candidate) {
    count += is_prime(candidate);
    if (candidate % 10'000 == 0) TThread::Pause();
  }
  return count;
}

struct Request {
  std::function<void()> run;
  bool failed = false;
};

void serve(Request& request) {
  try {
    request.run();
  } catch (EThreadInterrupt const&) {
    throw;
  } catch (...) {
    request.failed = true;
  }
}

// Tells the reader to stop, and lets it use the buffer up to then.
struct ReaderGuard {
  ~ReaderGuard() {
    stop.Set();
    stopped.WaitForSingleObject(0xFFFFFFFF, false);
  }
  TEvent& stop;
  TEvent& stopped;
};

struct Account {
  int balance;
  TMutex lock;
};

// Both accounts or none.
void transfer(Account& from, Account& to, int amount) {
  TLock first(from.lock), second(to.lock);  // an interruption comes here, or after
  from.balance -= amount;
  TThread::Sleep(1, false);
  to.balance += amount;
}

void report(TDebugStream& log, TThreadClass const& thread) {
  std::string const stack = thread.GetCurrentStack();
  if (!stack.empty()) log << "(!) still busy:" << stack << "\n";
}

// Feeds a pool of its own as fast as that gets on.
int check_all(std::vector<int> const& candidates) {
  auto const pool = CreateNewThreadPool(4, 0);
  std::atomic<int> count = 0;
  for (int const candidate : candidates) {
    auto const job = MakeThreadTask([&count, candidate] { count += is_prime(candidate); });
    if (!pool->AddJob(job)) job->WaitForFinish(-1);
  }
  pool->WaitForIdle(-1);
  pool->Stop();
  return count;
}

class CountTask final : public TThreadTask {
public:
  explicit CountTask(int its_limit) : limit(its_limit) {}

  void Run(SmartPtr<IThreadContext> const& context) override {
    RunTask(context, [this] { count = count_primes(limit); });
  }

  int count = 0;  // good when the task has finished

private:
  int const limit;
};

constexpr unsigned int obey = 20'000;

}  // namespace

TEST(ThreadDocExamples, StandOnThePageAsTheyRunHere) {
  velt_test::expect_doc_examples_run("threads.md", __FILE__);
}

TEST(ThreadDocExamples, Adder) {
  Adder adder;
  adder.StartThread();
  adder.add(40);
  adder.add(2);
  while (adder.sum != 42) TThread::Pause();
  adder.InterruptThread(0, 5'000);
  EXPECT_EQ(adder.sum, 42);

  Adder closed_at_once, never_started;
  closed_at_once.StartThread();
  EXPECT_EQ(::WaitForSingleObject(adder, 0), WAIT_OBJECT_0);
}

TEST(ThreadDocExamples, HandlerOfEverythingThrowsTheInterruptionOn) {
  Request failing{[] { throw std::runtime_error("bad request"); }},
      interrupted{[] { throw EThreadInterrupt(); }};
  serve(failing);
  EXPECT_TRUE(failing.failed);
  EXPECT_THROW(serve(interrupted), EThreadInterrupt);
  EXPECT_FALSE(interrupted.failed);
}

TEST(ThreadDocExamples, DestructorThatWaitsDeafSurvivesASecondInterruption) {
  TEvent stop, stopped, never;
  Worker worker([&] {
    ReaderGuard const guard{stop, stopped};
    never.WaitForSignal();
  });
  auto const writer = MakeCounted<RecordingWriter>();
  TDebugStream log(writer);
  worker.start_into_body();
  report(log, worker);
  EXPECT_TRUE(writer->all().starts_with("(!) still busy:\n-> ")) << writer->all();
  std::jthread const first([&] { worker.interrupt(obey); });
  stop.WaitForSignal();
  std::jthread const second([&] { worker.interrupt(obey); });
  EXPECT_FALSE(worker.ended_within(30));
  stopped.Set();
  EXPECT_TRUE(worker.ended_within(obey));
}

TEST(ThreadDocExamples, TransferIsDoneOrNotBegun) {
  Account one{1'000'000, {}}, other{0, {}};
  Worker worker([&] { for (;;) transfer(one, other, 1), TThread::Pause(); });
  for (int round = 0; round < 10; ++round) {
    worker.start_into_body();
    worker.interrupt(obey);
    EXPECT_EQ(one.balance + other.balance, 1'000'000);
    worker.CloseHandle();
  }
}

TEST(ThreadDocExamples, Pools) {
  int primes = 0;
  auto const task = GetSystemThreadPool()->AddJob([&] { primes = count_primes(100'000); });
  task->WaitForFinish(-1);
  if (task->IsException()) task->RethrowException();
  EXPECT_EQ(primes, 9'592);

  std::vector<int> candidates;
  for (int i = 2; i < 1'000; ++i) candidates.push_back(i);
  EXPECT_EQ(check_all(candidates), 168);

  auto const counting = MakeCounted<CountTask>(1'000);
  GetSystemThreadPool()->AddJob(counting);
  EXPECT_TRUE(counting->WaitForFinish(static_cast<int>(velt_test::patience)));
  EXPECT_EQ(counting->count, 168);

  auto const pool = CreateNewThreadPool(1, 0);
  TEvent never;
  auto const waiting = pool->AddJob([&] { never.WaitForSignal(); });
  waiting->WaitForStart(-1);
  waiting->Cancel();
  EXPECT_TRUE(waiting->IsFinished());
  pool->Stop();
}
