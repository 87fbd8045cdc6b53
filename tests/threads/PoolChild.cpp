// Ends with 7 while pools are at work, in the way that the first argument says.
// The jobs keep away from the heap: this platform may hang at the end of any
// process whose threads were stopped in it.
#include <windows.h>

#include <string_view>

#include "velt/debug/DebugStream.h"
#include "velt/locks/Event.h"
#include "velt/threads/ThreadPool.h"

namespace {

TEvent& never = *new TEvent(true, false);

void start_jobs() {
  for (auto const& pool : {GetSystemThreadPool(), CreateNewThreadPool(8, 2)}) {
    auto const start = [&pool](void (*job)()) { pool->AddJob(job)->WaitForStart(-1); };
    for (int i = 0; i < 2; ++i) {
      start([] { never.WaitForSignal(); });
      start([] { for (;;) YieldProcessor(); });
    }
    pool->AddJob([] {});
  }
}

// At its end other threads still run.
struct StaticPool {
  ~StaticPool() {
    if (pool) pool->Stop();
  }
  SmartPtr<IThreadPool> pool;
} static_pool;

}  // namespace

int main(int, char** arguments) {
  std::string_view const way = arguments[1];
  if (way == "log") {
    CreateNewThreadPool()->AddJob([] { for (;;) Debug << "still here\n"; })->WaitForStart(-1);
  } else if (way == "static") {
    static_pool.pool = CreateNewThreadPool();
    static_pool.pool->AddJob([] { never.WaitForSignal(); })->WaitForStart(-1);
  } else {
    start_jobs();
    if (way == "exit_process") ExitProcess(7);
  }
  return 7;
}
