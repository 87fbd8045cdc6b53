#include "velt/threads/ThreadContext.h"

#include "tests/support/OpenHandles.h"
#include "tests/threads/Support.h"

#undef GetJob  // of the platform's printing

using namespace velt_test;

namespace {

// Hands out a job of the test, and notes what it is told; to be read when the worker
// has ended.
struct Owner : IThreadOwner {
  SmartPtr<IThreadJob> GetJob() override {
    notes += "get ";
    return std::exchange(next, nullptr);
  }
  void ThreadFinished(SmartPtr<IThreadContext> context) override {
    notes += "thread_finished ";
    on_thread_finished(std::move(context));
  }
  void JobFinished(SmartPtr<IThreadJob>) override { notes += "job_finished "; }

  std::string notes;
  SmartPtr<IThreadJob> next;
  std::function<void(SmartPtr<IThreadContext>)> on_thread_finished;
};

void* thread_of(SmartPtr<IThreadContext> const& context) {
  return dynamic_cast<TThreadContext&>(*context);
}

}  // namespace

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
      if (way == "in a job") careless->next = job(wait);
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
