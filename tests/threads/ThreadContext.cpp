#include "velt/threads/ThreadContext.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <deque>
#include <functional>
#include <string>

#include "tests/support/OpenHandles.h"
#include "tests/threads/PoolSupport.h"
#include "velt/exceptions/ExceptionFamily.h"

#undef GetJob  // of the platform's printing

using namespace velt_test;

namespace {

// Hands out the jobs of the test, and notes what it is told; to be read when the
// worker has ended.
class Owner : public IThreadOwner {
public:
  SmartPtr<IThreadJob> GetJob() override {
    note("get ");
    if (jobs.empty()) return nullptr;
    auto const next = jobs.front();
    jobs.pop_front();
    return next;
  }
  void ThreadFinished(SmartPtr<IThreadContext> context) override {
    note("thread_finished ");
    if (before_thread_finished) before_thread_finished();
    if (keeps) finished = context;
    context.reset();
    if (on_thread_finished) on_thread_finished();
  }
  void JobFinished(SmartPtr<IThreadJob>) override { note("job_finished "); }

  void note(std::string const& what) { notes += what; }

  std::string notes;
  std::deque<SmartPtr<IThreadJob>> jobs;
  bool keeps = true;
  SmartPtr<IThreadContext> finished;
  std::function<void()> before_thread_finished, on_thread_finished;
};

struct ThreadContext : ::testing::Test {
  ~ThreadContext() override {
    owner->finished.reset();
    context.reset();
    EXPECT_EQ(owner.use_count(), 1);
  }

  void add(std::function<void()> work) { owner->jobs.push_back(job(std::move(work))); }

  // The handle of the thread.
  void* thread() const { return dynamic_cast<TThreadContext&>(*context); }

  void run_to_the_end() {
    context->Start();
    ASSERT_TRUE(signaled_within(thread(), patience));
  }

  SmartPtr<Owner> owner = MakeCounted<Owner>();
  SmartPtr<IThreadContext> context = CreateNewThreadContext(owner);
  DebugText debug;
};

}  // namespace

TEST_F(ThreadContext, RunsJobsOneAfterTheOtherAndReportsEach) {
  DWORD ran_on = 0;
  add([&] {
    owner->note("one ");
    ran_on = GetCurrentThreadId();
  });
  add([&] { owner->note("two "); });
  run_to_the_end();
  EXPECT_EQ(owner->notes, "get one job_finished get two job_finished get thread_finished ");
  EXPECT_EQ(ran_on, GetThreadId(thread()));
  EXPECT_EQ(owner->finished, context);
  EXPECT_EQ(debug.text(), "");
}

TEST_F(ThreadContext, JobThatThrowsIsReportedThenTheWorkerThenTheLineIsWritten) {
  add([&] { throw EGeneric({"Text", "No room"}); });
  add([] {});
  owner->on_thread_finished = [&] { owner->note(debug.text() + "| "); };
  ThrowCounter const throws;
  run_to_the_end();
  EXPECT_EQ(throws.count, 1);
  EXPECT_EQ(owner->notes, "get job_finished thread_finished | ");
  EXPECT_EQ(debug.text(), "(!) Thread runaway with exception EGeneric:No room\n");
}

TEST_F(ThreadContext, InterruptedJobIsNotReportedAndTheWorkerStartsAgain) {
  TEvent in_job, never;
  add([&] {
    in_job.Set();
    never.WaitForSignal();
  });
  context->Start();
  in_job.WaitForSignal();
  void* const first = thread();
  context->Restart();
  EXPECT_TRUE(signaled_within(first, 0));
  CloseHandle(first);
  EXPECT_EQ(debug.text(), "");
  EXPECT_TRUE(signaled_within(thread(), patience));
  EXPECT_EQ(owner->notes, "get get thread_finished ");
}

// A context that is dropped waits for its thread. Where the thread itself drops
// the last reference there is nothing to wait for, and nobody to report to.
TEST_F(ThreadContext, MayBeLeftToItsOwnThread) {
  struct {
    bool during_job;
    std::function<void()> on_thread_finished;
    char const* notes;
  } const rows[] = {
      {true, nullptr, "get "},
      {false, [] {}, "get thread_finished "},
      {false, [] { throw EThreadInterrupt(); }, "get thread_finished "},
  };
  for (auto const& [during_job, on_thread_finished, notes] : rows) {
    long const before = open_handles();
    {
      TEvent inside, dropped;
      auto const wait = [&] {
        inside.Set();
        dropped.WaitForSignal();
      };
      auto const careless = MakeCounted<Owner>();
      careless->keeps = false;
      careless->on_thread_finished = on_thread_finished;
      if (during_job)
        careless->jobs.push_back(job(wait));
      else
        careless->before_thread_finished = wait;
      auto only = CreateNewThreadContext(careless);
      only->Start();
      inside.WaitForSignal();
      THandle const thread(static_cast<void*>(dynamic_cast<TThreadContext&>(*only)));
      only.reset();
      dropped.Set();
      EXPECT_TRUE(signaled_within(thread, patience));
      EXPECT_EQ(careless->notes, notes);
      EXPECT_EQ(careless.use_count(), 1);
    }
    EXPECT_TRUE(open_handles_fall_to(before));
  }
}
