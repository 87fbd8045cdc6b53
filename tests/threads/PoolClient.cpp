// A DLL that uses pools, for a program that loads and unloads it. The jobs keep away
// from the heap: this platform may hang at the end of any process whose threads were
// stopped in it.
#include <windows.h>

#include "velt/debug/DebugStream.h"
#include "velt/locks/Event.h"
#include "velt/threads/ThreadPool.h"

namespace {

TEvent& never = *new TEvent(true, false);

struct OwnPool {
  ~OwnPool() {
    if (pool) pool->Stop();
  }
  SmartPtr<IThreadPool> pool = CreateNewThreadPool();
};

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

EXPORT void start_jobs() {
  for (auto const& pool : {GetSystemThreadPool(), CreateNewThreadPool(8, 2)}) {
    for (int i = 0; i < 2; ++i) {
      start(*pool, [] { never.WaitForSignal(); });
      start(*pool, [] { for (;;) YieldProcessor(); });
    }
    pool->AddJob([] {});
  }
}

EXPORT void log_for_ever() {
  start(*CreateNewThreadPool(), [] { for (;;) Debug << "still here\n"; });
}

// On a pool that the static destructor stops.
EXPORT void wait_for_ever() {
  static OwnPool own;
  start(*own.pool, [] { never.WaitForSignal(); });
}

// The caller's job to stop it.
EXPORT void* wait_in_pool() {
  auto const own = new OwnPool;
  start(*own->pool, [] { never.WaitForSignal(); });
  return own;
}
EXPORT void stop_pool(void* own) { delete static_cast<OwnPool*>(own); }
