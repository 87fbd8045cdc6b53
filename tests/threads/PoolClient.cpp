// A DLL that uses pools, for programs that load and unload it.
#include <windows.h>

#include "velt/locks/Event.h"
#include "velt/threads/ThreadPool.h"

namespace {

struct OwnPool {
  ~OwnPool() {
    if (pool) pool->Stop();
  }
  SmartPtr<IThreadPool> pool;
} own;

}  // namespace

extern "C" {

// Runs a job on the shared pool and drops it, as its code must not be needed any
// more when this module is unloaded; the worker is idle then.
__declspec(dllexport) void run_job() {
  auto const task = GetSystemThreadPool()->AddJob([] {});
  task->WaitForFinish(-1);
  while (task.use_count() != 1) Sleep(1);
}

__declspec(dllexport) void stop() { GetSystemThreadPool()->Stop(); }

// On a pool that the static destructor stops.
__declspec(dllexport) void wait_for_ever() {
  static TEvent& never = *new TEvent(true, false);
  own.pool = CreateNewThreadPool();
  own.pool->AddJob([] { never.WaitForSignal(); })->WaitForStart(-1);
}
}
