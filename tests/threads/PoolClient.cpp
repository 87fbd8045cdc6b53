#include "tests/threads/PoolClient.h"

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

// The code of the job must not be needed any more when this module is unloaded.
__declspec(dllexport) void run_job() {
  auto const task = GetSystemThreadPool()->AddJob([] {});
  task->WaitForFinish(-1);
  while (task.use_count() != 1) Sleep(1);
}

__declspec(dllexport) void stop() { GetSystemThreadPool()->Stop(); }

__declspec(dllexport) void start_jobs(int count) {
  static TEvent& never = *new TEvent(true, false);
  own.pool = CreateNewThreadPool();
  for (int i = 0; i < count; ++i) own.pool->AddJob([] { never.WaitForSignal(); })->WaitForStart(-1);
}
}
