// Ends with 7 while pools are at work, in the way that the first argument says.
// The jobs keep away from the heap: this platform may hang at the end of any
// process whose threads were stopped in it.
#include <windows.h>

#include <string_view>

#include "tests/threads/PoolClient.h"
#include "velt/debug/DebugStream.h"
#include "velt/locks/Event.h"
#include "velt/threads/ThreadPool.h"

namespace {

void start_jobs() {
  static TEvent& never = *new TEvent(true, false);
  for (auto const& pool : {GetSystemThreadPool(), CreateNewThreadPool(8, 2)}) {
    for (int i = 0; i < 2; ++i) {
      pool->AddJob([] { never.WaitForSignal(); })->WaitForStart(-1);
      pool->AddJob([] {
            for (;;) YieldProcessor();
          })
          ->WaitForStart(-1);
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

int main(int count, char** arguments) {
  std::string_view const way = count > 1 ? arguments[1] : "";
  if (way == "return") {
    start_jobs();
  } else if (way == "exit_process") {
    start_jobs();
    ExitProcess(7);
  } else if (way == "static") {
    static TEvent& never = *new TEvent(true, false);
    static_pool.pool = CreateNewThreadPool();
    static_pool.pool->AddJob([] { never.WaitForSignal(); })->WaitForStart(-1);
  } else if (way == "log") {
    CreateNewThreadPool()
        ->AddJob([] {
          for (;;) Debug << "still here\n";
        })
        ->WaitForStart(-1);
  } else if (way == "dll" && count > 2) {
    HMODULE const client = LoadLibraryA(arguments[2]);
    auto const start = reinterpret_cast<start_jobs_call>(
        reinterpret_cast<void*>(GetProcAddress(client, "start_jobs")));
    start(3);
  } else {
    return 1;
  }
  return 7;
}
