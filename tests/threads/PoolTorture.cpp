// Pools under everything that clients do to them at once: jobs and tasks of all
// kinds, cancels, changed limits, cleared queues, waits, stops. Each round has a
// pool of its own, and ends with no thread, no job and no handle left but those
// that are known to stay.
//
//   pool_torture [--seconds N] [--seed S] [--threads T]
//
// A calm round has nothing in it that drops or interrupts jobs: each must then
// have run once. Only there the stack overflows, which must not be interrupted.
// Ends with 0 if nothing was found, with 1 after a fault, with 2 after an option
// that it does not know.
#include <windows.h>

#include <tlhelp32.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/OpenHandles.h"
#include "tests/support/TortureOptions.h"
#include "tests/threads/Faults.h"
#include "velt/debug/DebugStream.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/Event.h"
#include "velt/threads/Thread.h"
#include "velt/threads/ThreadPool.h"
#include "velt/value/HolderCacheInternal.h"

namespace {

[[noreturn]] void fail(std::string const& fault) {
  std::printf("pool_torture: %s\n", fault.c_str());
  std::fflush(stdout);
  std::_Exit(1);
}

void expect(bool is_so, std::string const& fault) {
  if (!is_so) fail(fault);
}

constexpr int patience = 60'000;

struct Counts {
  std::atomic<unsigned> added = 0, refused = 0, run = 0, interrupted = 0, cancels = 0, stops = 0,
                        faults = 0, overflows = 0, runaways = 0, live = 0;
};
Counts counts;

// Counts the lines of runaways, and takes anything else for a fault.
struct RunawayCounter : TStreamWriter {
  void StreamWriteString(char const* text, unsigned __int64 size) override {
    if (std::string(text, size).starts_with("(!) Thread runaway")) ++counts.runaways;
  }
};

// What a job does; `open` lets those go that wait.
enum class kind {
  nothing, compute, wait, pause, fail, fail_oddly, fault, overflow, add, interrupt, count
};

kind allowed(kind what, bool calm) {
  if (calm && (what == kind::wait || what == kind::interrupt)) return kind::nothing;
  return !calm && what == kind::overflow ? kind::fault : what;
}

class Round;

struct Work {
  Round* round;
  kind what;
  std::shared_ptr<std::atomic<bool>> done = std::make_shared<std::atomic<bool>>(false);
  void operator()() const;
};

struct Task {
  SmartPtr<IThreadTask> task;
  std::shared_ptr<std::atomic<bool>> done;

  void check() const {
    if (task->IsFinished() && !task->IsException())
      expect(*done, "a task reads finished without an exception, and was not done");
  }
};

struct Job final : IThreadJob {
  explicit Job(Work its_work) : work(its_work) { ++counts.live; }
  ~Job() override { --counts.live; }
  void Run(SmartPtr<IThreadContext> const&) override { work(); }
  Work work;
};

class Round {
public:
  Round(std::mt19937& random, unsigned actors, bool its_calm)
      : calm(its_calm),
        pool(CreateNewThreadPool(1 + static_cast<int>(random() % 6), static_cast<int>(random() % 3),
                                 0, calm ? 1'000'000 : 1 + static_cast<int>(random() % 300))) {
    std::vector<std::jthread> threads;
    unsigned const steps = 50 + random() % 200;
    for (unsigned i = 0; i < actors; ++i)
      threads.emplace_back([this, steps, seed = random()] { act(seed, steps); });
  }

  void finish(std::mt19937& random) {
    if (calm) {
      // A maximum of 0 may have left jobs waiting.
      pool->SetLimits(2, 0, 0);
      expect(pool->WaitForIdle(patience), "a calm pool does not become idle: " + state());
      expect(counts.run == counts.added, "jobs were lost or run twice: " + state());
    }
    if (random() % 2 == 0) open.Set();
    pool->Stop();
    expect(state().find(" Threads=0 Queue=0 Idle=0 ") != std::string::npos,
           "not empty after the stop: " + state());
    expect(pool.use_count() == 1, "somebody holds on to the stopped pool");
  }

  std::string state() const { return pool->describe(); }

  void add(kind what) {
    try {
      pool->AddJob(SmartPtr<IThreadJob>(MakeCounted<Job>(Work{this, what})));
      ++counts.added;
    } catch (EGeneric const& error) {
      expect(error["Text"].as_string() == "Thread pool overflowed", error.what());
      ++counts.refused;
    }
  }

  TEvent open{true, false};

private:
  void act(unsigned seed, unsigned steps) {
    std::mt19937 random(seed);
    std::vector<Task> tasks;
    for (unsigned i = 0; i < steps; ++i) {
      step(random, tasks);
      if (random() % 32 == 0) ::Sleep(1);
    }
    for (auto const& each : tasks) each.check();
  }

  void step(std::mt19937& random, std::vector<Task>& tasks) {
    auto const what =
        allowed(static_cast<kind>(random() % static_cast<unsigned>(kind::count)), calm);
    switch (random() % 16) {
      case 0:
        pool->SetLimits(static_cast<int>(random() % 7), static_cast<int>(random() % 3), 0);
        break;
      case 1: pool->WaitForIdle(static_cast<int>(random() % 3)); break;
      case 2: expect(!state().empty(), "no text"); break;
      case 3: calm ? add(what) : pool->ClearQueue(); break;
      case 4: calm || random() % 16 != 0 ? add(what) : stop(); break;
      case 5: case 6: case 7: add_task(what, tasks); break;
      case 8: case 9: calm ? add(what) : cancel(random, tasks); break;
      default: add(what);
    }
  }

  void stop() {
    ++counts.stops;
    pool->Stop();
    pool->SetLimits(3, 0, 0);
  }

  void add_task(kind what, std::vector<Task>& tasks) {
    try {
      Work const work{this, what};
      tasks.push_back({pool->AddJob(work), work.done});
      ++counts.added;
    } catch (EGeneric const&) {
      ++counts.refused;
    }
  }

  void cancel(std::mt19937& random, std::vector<Task>& tasks) {
    if (tasks.empty()) return;
    auto& each = tasks[random() % tasks.size()];
    ++counts.cancels;
    each.task->Cancel();
    expect(each.task->IsFinished(), "a cancelled task is not finished");
    each.check();
    each = tasks.back();
    tasks.pop_back();
  }

  bool const calm;
  SmartPtr<IThreadPool> pool;
};

void Work::operator()() const {
  ++counts.run;
  try {
    switch (what) {
      case kind::compute:
        for (int i = 0; i < 20'000; ++i) YieldProcessor();
        break;
      case kind::wait: round->open.Signaled(patience); break;
      case kind::pause: TThread::Pause(); break;
      case kind::fail: throw EGeneric({"Text", "fails"});
      case kind::fail_oddly: throw 5;
      case kind::fault:
        ++counts.faults;
        velt_test::read_through_bad_pointer();
        break;
      case kind::overflow:
        ++counts.overflows;
        velt_test::overflow_stack();
        break;
      case kind::add: round->add(kind::nothing); break;
      case kind::interrupt: throw EThreadInterrupt();
      default: break;
    }
    *done = true;
  } catch (EThreadInterrupt const&) {
    ++counts.interrupted;
    throw;
  }
}

unsigned threads_of_process() {
  HANDLE const snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  unsigned count = 0;
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
    count += entry.th32OwnerProcessID == GetCurrentProcessId();
  CloseHandle(snapshot);
  return count;
}

void run_round(std::mt19937& random, unsigned actors, unsigned number) {
  unsigned const cancels_before = counts.cancels;
  long const handles = velt_test::open_handles();
  unsigned const threads = threads_of_process();
  bool const calm = number % 4 == 0;
  counts.added = counts.run = 0;
  {
    Round round(random, actors, calm);
    round.finish(random);
  }
  expect(counts.live == 0, std::to_string(counts.live) + " jobs were never released");
  expect(threads_of_process() == threads, "a thread is left");
  // A worker that is started again leaves the handle of its thread before open.
  // The platform's own locks take one each when threads first meet there.
  static long of_platform = 0;
  long const more = velt_test::open_handles() - handles;
  of_platform += std::max(0l, more - static_cast<long>(counts.cancels - cancels_before));
  expect(of_platform < 20, "handles were lost");
}

void torture(velt_test::TortureOptions const& options) {
  std::printf("pool_torture: seed %u, %u threads, %u s\n", options.seed, options.threads,
              options.seconds);
  std::fflush(stdout);
  UseVEH = SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = false;
  ExtendDebugInformationFromException = false;
  Debug.ChangeWriter(MakeCounted<RunawayCounter>());

  std::mt19937 random(options.seed);
  ULONGLONG const end = GetTickCount64() + options.seconds * 1'000ull;
  unsigned rounds = 0, run = 0;
  do {
    run_round(random, options.threads, rounds++);
    run += counts.run;
  } while (GetTickCount64() < end);
  expect(velt::detail::live_holders() == 0, "values were lost");
  std::printf("%u rounds, %u jobs run, %u refused, %u interrupted, %u cancels, %u faults, "
              "%u overflows, %u runaways, %u stops\n",
              rounds, run, counts.refused.load(), counts.interrupted.load(), counts.cancels.load(),
              counts.faults.load(), counts.overflows.load(), counts.runaways.load(), counts.stops.load());
}

}  // namespace

int main(int count, char** arguments) {
  torture(velt_test::torture_options(count, arguments, "--threads", 3, 1, 16));
}
