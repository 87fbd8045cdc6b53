// Interrupts threads at random moments, out of every kind of wait that the
// library has: each must end by unwinding, with every lock that it held free
// again, nothing written to Debug and no handle lost.
//
//   interruption_torture [--seconds N] [--seed S] [--pairs P]
//
// A pair is a thread that interrupts and its victims, one after the other. Ends
// with 0 if nothing was found, with 1 after a fault, with 2 after an option that
// it does not know.
#include <windows.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/locks/OpenLock.h"
#include "tests/support/OpenHandles.h"
#include "tests/support/TortureOptions.h"
#include "velt/debug/DebugStream.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/Event.h"
#include "velt/locks/MultiLock.h"
#include "velt/locks/Mutex.h"
#include "velt/locks/Semaphore.h"
#include "velt/locks/WaitableTimer.h"
#include "velt/threads/ThreadClass.h"

namespace {

using velt_test::OpenLock;
using Options = velt_test::TortureOptions;

// Every way to fail ends the program, as the threads cannot be trusted then.
[[noreturn]] void fail(char const* wait, std::string const& fault) {
  std::printf("interruption_torture: %s: %s\n", wait, fault.c_str());
  std::fflush(stdout);
  std::_Exit(1);
}

// Nobody but the tests writes to Debug: a runaway would.
struct RunawayAlarm : TStreamWriter {
  void StreamWriteString(char const* text, unsigned __int64 size) override {
    fail("Debug", std::string(text, size));
  }
};

// What victims wait for. The thread that interrupts them holds `taken...` for
// good, and one more thread takes and frees `busy...` all the time.
struct Scene {
  TMutex taken_mutex, busy_mutex, own_mutex;
  TSemaphore taken_semaphore{1, 0}, busy_semaphore{1}, own_semaphore{1};
  TEvent never;
  TWaitableTimer no_timer;
  TMultiLock taken_lock, read_taken_lock, busy_lock, own_lock;
  OpenLock inner_taken;
  TDebugStream taken_stream, busy_stream;
};

struct Wait {
  char const* name;
  void (*go_on)(Scene&);  // for ever
};

constexpr unsigned int long_limit = 60'000;
// What a thread gets to obey, on a busy machine.
constexpr unsigned int obey = 20'000;

class OtherThread final : public TThreadClass {
public:
  OtherThread() { StartThread(); }
  // Not alertable, as no destructor may be.
  ~OtherThread() {
    end.Set();
    ::WaitForSingleObject(handle, INFINITE);
  }
  void ThreadBody() override { end.WaitForSignal(); }

private:
  TEvent end;
};

// Who always gets what he asks for never waits, and could not be interrupted.
template <class Step>
[[noreturn]] void again_and_again(Step step) {
  for (unsigned int i = 1;; ++i) {
    step();
    if (i % 32 == 0) TThread::Pause();
  }
}

Wait const waits[] = {
    {"mutex", [](Scene& s) { TLock guard(s.taken_mutex); }},
    {"mutex with limit", [](Scene& s) { TLock guard(s.taken_mutex, long_limit); }},
    {"busy mutex", [](Scene& s) { again_and_again([&] { TLock guard(s.busy_mutex); }); }},
    {"semaphore", [](Scene& s) { TLock guard(s.taken_semaphore); }},
    {"semaphore with limit", [](Scene& s) { TLock guard(s.taken_semaphore, long_limit); }},
    {"busy semaphore", [](Scene& s) { again_and_again([&] { TLock guard(s.busy_semaphore); }); }},
    {"event", [](Scene& s) { s.never.WaitForSignal(); }},
    {"event with limit", [](Scene& s) { s.never.Signaled(long_limit); }},
    {"timer", [](Scene& s) { s.no_timer.WaitForSingleObject(INFINITE, TRUE); }},
    {"write lock", [](Scene& s) { s.taken_lock.WriteLock(); }},
    {"write lock with limit", [](Scene& s) { (void)s.taken_lock.WriteLock(long_limit); }},
    {"read lock", [](Scene& s) { (void)s.taken_lock.ReadLock(long_limit); }},
    {"free read lock", [](Scene& s) { s.taken_lock.ReadLockThreadIndependent(); }},
    {"free write lock",
     [](Scene& s) { (void)s.taken_lock.WriteLockThreadIndependent(long_limit); }},
    {"upgrade",
     [](Scene& s) {
       s.read_taken_lock.ReadLock();
       struct Hold {
         ~Hold() { lock.Unlock(); }
         TMultiLock& lock;
       } const hold{s.read_taken_lock};
       s.read_taken_lock.WriteLock();
     }},
    {"inner lock", [](Scene& s) { s.inner_taken.ReadLock(); }},
    {"busy write lock", [](Scene& s) { again_and_again([&] { TLock guard(s.busy_lock); }); }},
    {"busy write lock with limit",
     [](Scene& s) { again_and_again([&] { TLock guard(s.busy_lock, long_limit); }); }},
    {"stream", [](Scene& s) { s.taken_stream << "text"; }},
    {"busy stream", [](Scene& s) { again_and_again([&] { s.busy_stream << "text" << 1; }); }},
    {"sleep", [](Scene&) { TThread::Sleep(INFINITE, TRUE); }},
    {"pauses", [](Scene&) { again_and_again([] { TThread::Pause(); }); }},
    {"stop of another thread",
     [](Scene&) {
       OtherThread other;
       other.StopThread(long_limit);
     }},
    {"end of another thread",
     [](Scene&) {
       OtherThread other;
       other.InterruptThread(long_limit, long_limit);
     }},
};

class Victim final : public TThreadClass {
public:
  Victim(Scene& its_scene, Wait const& its_wait) : scene(its_scene), wait(its_wait) {
    StartThread();
  }
  ~Victim() {
    if (::WaitForSingleObject(handle, 0) != WAIT_OBJECT_0) fail(wait.name, "still runs");
  }

  void ThreadBody() override {
    Frame const frame(outcome);
    TLock first(scene.own_mutex), second(scene.own_lock), third(scene.own_semaphore);
    wait.go_on(scene);
    fail(wait.name, "ended its wait");
  }
  void OnException() override { fail(wait.name, "had an exception"); }

  // A body that began between the two steps of InterruptThread() was not asked to
  // end, and would be killed.
  void StopThread(unsigned int limit) override {
    for (unsigned int passed = 0; passed < limit; passed += 10) {
      if (::WaitForSingleObject(handle, 10) == WAIT_OBJECT_0) return;
      if (outcome != in_body || InterruptState != InterruptRequested) continue;
      InterruptState = Running;
      QueueUserAPC(ThrowEThreadInterrupt,
                   reinterpret_cast<std::uintptr_t>(static_cast<TThreadClass*>(this)));
    }
    fail(wait.name, "did not unwind");
  }

  // As everybody has to: the thread may end just before the call is queued.
  void interrupt() {
    try {
      InterruptThread(0, obey);
    } catch (ESystemException const& error) {
      if (error["Code"].as_int() != ERROR_GEN_FAILURE ||
          ::WaitForSingleObject(handle, obey) != WAIT_OBJECT_0)
        fail(wait.name, error.what());
    }
  }

  enum outcomes { not_begun, in_body, unwound };
  std::atomic<outcomes> outcome = not_begun;
  bool was_skipped() const { return outcome == not_begun && InterruptState == InterruptRequested; }

private:
  struct Frame {
    explicit Frame(std::atomic<outcomes>& where) : place(where) { place = in_body; }
    ~Frame() { place = unwound; }
    std::atomic<outcomes>& place;
  };

  Scene& scene;
  Wait const& wait;
};

// Takes and frees what the busy waits are for.
class Rival {
public:
  explicit Rival(Scene& its_scene)
      : scene(its_scene), thread([this] {
          try {
            work();
          } catch (EGeneric const& error) {
            fail("busy locks", error.what());
          }
        }) {}
  ~Rival() {
    stop = true;
    thread.join();
  }

private:
  void work() {
    while (!stop) {
      {
        TLock first(scene.busy_mutex, obey), second(scene.busy_semaphore, obey),
            third(scene.busy_lock, obey);
        scene.busy_stream << "text" << 2;
        if (++rounds % 8 == 0) ::Sleep(1);
      }
      if (rounds % 16 == 0) ::Sleep(1);
    }
  }

  Scene& scene;
  unsigned int rounds = 0;
  std::atomic<bool> stop = false;
  std::thread thread;
};

// How many were interrupted in each of the waits.
using Counts = std::vector<unsigned>;

class Interrupter {
public:
  Interrupter(unsigned int seed, std::atomic<bool> const& stop_flag)
      : random(seed), stop(stop_flag) {}

  void work() {
    Rival const rival(scene);
    TLock mutex(scene.taken_mutex), lock(scene.taken_lock);
    TDebugStreamSession const session(scene.taken_stream);
    scene.read_taken_lock.ReadLock();
    scene.inner_taken.hold_inner();
    while (!stop) {
      auto const which = random() % std::size(waits);
      interrupt(waits[which], counts[which]);
    }
    scene.inner_taken.let_inner_go();
    scene.read_taken_lock.Unlock();
  }

  Counts counts = Counts(std::size(waits));

private:
  void interrupt(Wait const& wait, unsigned& interrupted) {
    std::optional<std::jthread> second;
    {
      Victim victim(scene, wait);
      pause();
      if (victim.outcome == Victim::not_begun && random() % 4 != 0)
        while (victim.outcome == Victim::not_begun) SwitchToThread();
      if (random() % 4 == 0) second.emplace([&victim] { victim.interrupt(); });
      victim.interrupt();
      if (second) second->join();
      interrupted += victim.outcome == Victim::unwound;
      if (!victim.was_skipped() && victim.outcome != Victim::unwound)
        fail(wait.name, "neither unwound nor skipped");
    }
    expect_free(wait);
  }

  // From nothing to about as long as a thread needs to begin its wait.
  void pause() {
    switch (random() % 4) {
      case 0: break;
      case 1: ::Sleep(random() % 3); break;
      default:
        for (auto i = random() % 3000; i > 0; --i) YieldProcessor();
    }
  }

  void expect_free(Wait const& wait) {
    if (!scene.own_mutex.Lock(0) || !scene.own_semaphore.Lock(0) ||
        scene.own_lock.GetStatusString() != "not_locked")
      fail(wait.name, "left a lock of its own taken");
    scene.own_mutex.Unlock();
    scene.own_semaphore.Unlock();
    std::string const own = std::to_string(GetCurrentThreadId());
    if (scene.taken_lock.GetStatusString() != "locked_write, " + own + ":W" ||
        scene.read_taken_lock.GetStatusString() != "locked_read, " + own + ":R")
      fail(wait.name, "left a trace in the lock that it waited for");
  }

  std::mt19937 random;
  std::atomic<bool> const& stop;
  Scene scene;
};

// As many rounds as fit into the time.
Counts run_pairs(Options const& options, ULONGLONG milliseconds) {
  std::atomic<bool> stop = false;
  std::vector<std::unique_ptr<Interrupter>> pairs;
  std::vector<std::jthread> threads;
  for (unsigned int i = 0; i < options.threads; ++i) {
    pairs.push_back(std::make_unique<Interrupter>(options.seed * 1'000u + i, stop));
    threads.emplace_back([&pair = *pairs.back()] { pair.work(); });
  }
  constexpr ULONGLONG step = 200;
  for (ULONGLONG passed = 0; passed < milliseconds; passed += step) ::Sleep(step);
  stop = true;
  threads.clear();
  Counts sum(std::size(waits));
  for (auto const& pair : pairs)
    for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += pair->counts[i];
  return sum;
}

void torture(Options const& options) {
  std::printf("interruption_torture: seed %u, %u pairs, %u s\n", options.seed, options.threads,
              options.seconds);
  std::fflush(stdout);
  Debug.AddWriter(MakeCounted<RunawayAlarm>());

  // What is opened once for good, is so now.
  try {
    ThrowSystemException(ERROR_GEN_FAILURE);
  } catch (ESystemException const&) {
  }
  run_pairs(options, 300);
  long const handles = velt_test::open_handles();
  Counts const counts = run_pairs(options, options.seconds * 1'000ull);
  if (long const now = velt_test::open_handles(); now != handles)
    fail("all waits", std::to_string(now - handles) + " handles were lost");

  unsigned total = 0;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    if (counts[i] == 0) fail(waits[i].name, "was never interrupted");
    total += counts[i];
  }
  std::printf("%u interrupted in %u kinds of waits\n", total, static_cast<unsigned>(counts.size()));
}

}  // namespace

int main(int count, char** arguments) {
  SaveMiniDumpOnCppException = false;
  torture(velt_test::torture_options(count, arguments, "--pairs", 2, 1, 16));
}
