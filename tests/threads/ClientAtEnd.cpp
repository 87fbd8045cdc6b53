// A DLL that uses the library, for a program that loads and unloads it. The jobs keep
// away from the heap: this platform may hang at the end of any process whose threads
// were stopped in it.
#include <windows.h>

#include <string_view>
#include <thread>

#include "tests/locks/OpenLock.h"
#include "velt/debug/DebugStream.h"
#include "velt/locks/Event.h"
#include "velt/threads/PoolGuard.h"

namespace {

TEvent& never = *new TEvent(true, false);
velt_test::OpenLock lock;

void start(IThreadPool& pool, void (*job)()) { pool.AddJob(job)->WaitForStart(-1); }

// Drops the task, as its code must not be needed any more when this module is
// unloaded; the worker is idle then.
void run_job() {
  auto const task = GetSystemThreadPool()->AddJob([] {});
  task->WaitForFinish(-1);
  while (task.use_count() != 1) Sleep(1);
}

// On a pool that the static destructor stops.
void wait_for_ever() {
  static TThreadPoolGuard own;
  start(*own, [] { never.WaitForSignal(); });
}

void start_jobs() {
  for (auto const& pool : {GetSystemThreadPool(), CreateNewThreadPool(8, 2)}) {
    start(*pool, [] { never.WaitForSignal(); });
    start(*pool, [] { for (;;) YieldProcessor(); });
    start(*pool, [] { for (;;) Debug << "still here\n"; });
    pool->AddJob([] {});
  }
}

// The lock is destroyed after the platform has ended all other threads.
void stay_inside_lock() {
  TEvent held;
  std::thread([&held] {
    for (int i = 0; i < 3; ++i) lock.ReadLock();  // the third moves the records to the heap
    lock.hold_inner();
    held.Set();
    Sleep(INFINITE);
  }).detach();
  held.WaitForSignal();
}

}  // namespace

extern "C" __declspec(dllexport) void use_library(std::string_view way) {
  bool const ends_process = way == "return" || way == "exit";
  if (way == "stopped" || way == "idle") run_job();
  if (way == "stopped") GetSystemThreadPool()->Stop();
  if (way == "running" || ends_process) wait_for_ever();
  if (ends_process) start_jobs();
  if (way == "lock") stay_inside_lock();
}
