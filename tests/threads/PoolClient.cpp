// A DLL that uses pools, for a program that loads and unloads it. The jobs keep away
// from the heap: this platform may hang at the end of any process whose threads were
// stopped in it.
#include <windows.h>

#include "velt/debug/DebugStream.h"
#include "velt/locks/Event.h"
#include "velt/threads/PoolGuard.h"

namespace {

TEvent& never = *new TEvent(true, false);

void start(IThreadPool& pool, void (*job)()) { pool.AddJob(job)->WaitForStart(-1); }

}  // namespace

#define EXPORT extern "C" __declspec(dllexport)

// Runs a job on the shared pool and drops it, as its code must not be needed any
// more when this module is unloaded; the worker is idle then.
EXPORT void run_job() {
  auto const task = GetSystemThreadPool()->AddJob([] {});
  task->WaitForFinish(-1);
  while (task.use_count() != 1) Sleep(1);
}

EXPORT void stop() { GetSystemThreadPool()->Stop(); }

// On a pool that the static destructor stops.
EXPORT void wait_for_ever() {
  static TThreadPoolGuard own;
  start(*own, [] { never.WaitForSignal(); });
}

EXPORT void start_jobs() {
  wait_for_ever();
  for (auto const& pool : {GetSystemThreadPool(), CreateNewThreadPool(8, 2)}) {
    start(*pool, [] { never.WaitForSignal(); });
    start(*pool, [] { for (;;) YieldProcessor(); });
    start(*pool, [] { for (;;) Debug << "still here\n"; });
    pool->AddJob([] {});
  }
}
