#include "velt/threads/ThreadContext.h"

#include <deque>

#include "tests/support/OpenHandles.h"
#include "tests/threads/Support.h"

#undef GetJob  // of the platform's printing

using namespace velt_test;

namespace {

// Hands out the jobs of the test, and notes what it is told; to be read when the
// worker has ended.
struct Owner : IThreadOwner {
  SmartPtr<IThreadJob> GetJob() override {
    notes += "get ";
    if (jobs.empty()) return nullptr;
    auto const next = jobs.front();
    jobs.pop_front();
    return next;
  }
  void ThreadFinished(SmartPtr<IThreadContext> context) override {
    notes += "thread_finished ";
    on_thread_finished(std::move(context));
  }
  void JobFinished(SmartPtr<IThreadJob>) override { notes += "job_finished "; }

  void add(std::function<void()> work) { jobs.push_back(job(std::move(work))); }

  std::string notes;
  std::deque<SmartPtr<IThreadJob>> jobs;
  std::function<void(SmartPtr<IThreadContext>)> on_thread_finished;
};

void* thread_of(SmartPtr<IThreadContext> const& context) {
  return dynamic_cast<TThreadContext&>(*context);
}

}  // namespace

// A job that throws is reported, then the worker; then the line is written.
TEST(ThreadContext, RunsJobsOneAfterTheOtherAndReportsEachThenItsEnd) {
  for (bool const throws : {false, true}) {
    auto const owner = MakeCounted<Owner>();
    auto context = CreateNewThreadContext(owner);
    DebugText debug;
    owner->add([&] { owner->notes += "one "; });
    owner->add([&] {
      EXPECT_EQ(GetThreadId(thread_of(context)), GetCurrentThreadId());
      if (throws) throw EGeneric({"Text", "No room"});
    });
    owner->on_thread_finished = [&](auto last) {
      EXPECT_EQ(last, context);
      EXPECT_EQ(debug.text(), "");
    };
    EXPECT_EQ(throws_during([&] {
      context->Start();
      EXPECT_TRUE(signaled_within(thread_of(context), patience));
    }), throws);
    EXPECT_EQ(owner->notes, std::string("get one job_finished get job_finished ") +
                                (throws ? "" : "get ") + "thread_finished ");
    EXPECT_EQ(debug.text(), throws ? "(!) Thread runaway with exception EGeneric:No room\n" : "");
    context.reset();
    EXPECT_EQ(owner.use_count(), 1);
  }
}

// A context that is dropped waits for its thread. Where the thread itself drops
// the last reference there is nothing to wait for, and nobody to report to.
TEST(ThreadContext, MayBeLeftToItsOwnThread) {
  for (std::string const way : {"in a job", "in the report", "in a report that throws"}) {
    SCOPED_TRACE(way);
    long const before = open_handles();
    {
      TEvent inside, dropped;
      auto const wait = [&] {
        inside.Set();
        dropped.WaitForSignal();
      };
      auto const careless = MakeCounted<Owner>();
      careless->on_thread_finished = [&](auto last) {
        wait();
        last.reset();
        if (way == "in a report that throws") throw EThreadInterrupt();
      };
      if (way == "in a job") careless->add(wait);
      auto only = CreateNewThreadContext(careless);
      only->Start();
      inside.WaitForSignal();
      THandle const thread(thread_of(only));
      only.reset();
      dropped.Set();
      EXPECT_TRUE(signaled_within(thread, patience));
      EXPECT_EQ(careless->notes, way == "in a job" ? "get " : "get thread_finished ");
      EXPECT_EQ(careless.use_count(), 1);
    }
    EXPECT_TRUE(open_handles_fall_to(before));
  }
}
