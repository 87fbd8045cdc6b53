// Interrupts threads at random moments, out of every kind of wait that the library
// has: each must end by unwinding, with every lock that it held free again, and
// nothing written to Debug. Each of `--threads` threads interrupts its own victims,
// one after the other.
#include <windows.h>

#include <atomic>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "tests/locks/OpenLock.h"
#include "tests/torture/Torture.h"
#include "velt/debug/DebugStream.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/Event.h"
#include "velt/locks/Mutex.h"
#include "velt/locks/Semaphore.h"
#include "velt/threads/ThreadClass.h"

using namespace velt_test;

namespace {

constexpr unsigned int long_limit = 60'000;
// What a thread gets to obey, on a busy machine.
constexpr unsigned int obey = 20'000;

// Nobody but a runaway writes to Debug.
struct RunawayAlarm : TStreamWriter {
  void StreamWriteString(char const* text, unsigned __int64 size) override {
    fail(std::string(text, size));
  }
};

// What victims wait for. The thread that interrupts them holds `taken...` for good;
// the stage's own takes and frees `busy...` all the time.
struct Stage final : TThreadClass {
  Stage() { StartThread(); }
  ~Stage() {
    stop = true;
    ::WaitForSingleObject(handle, INFINITE);
  }
  void ThreadBody() override {
    for (int i = 0; !stop; ++i) {
      {
        TLock const hold(busy_lock, obey);
        busy_stream << "text" << 2;
        if (i % 8 == 0) ::Sleep(1);
      }
      if (i % 16 == 0) ::Sleep(1);
    }
  }

  TMutex taken_mutex, own_mutex;
  TSemaphore taken_semaphore{1, 0}, own_semaphore{1};
  TEvent never;
  TMultiLock taken_lock, read_taken_lock, busy_lock, own_lock;
  OpenLock inner_taken;
  TDebugStream taken_stream, busy_stream;
  std::atomic<bool> stop = false;
};

// A thread that always gets what it asks for never waits, and could not be
// interrupted.
template <class Step>
[[noreturn]] void again_and_again(Step step) {
  for (unsigned int i = 1;; ++i) {
    step();
    if (i % 32 == 0) TThread::Pause();
  }
}

void upgrade(Stage& s) {
  TReadLock const hold(s.read_taken_lock);
  s.read_taken_lock.WriteLock();
}

void wait_in_a_handler(Stage& s) try {
  throw ENotImplemented("Interruption", 1, "nothing");
} catch (EGeneric const&) {
  s.never.WaitForSignal();
}

struct Wait {
  std::string name;
  void (*go_on)(Stage&);  // for ever
  std::atomic<unsigned int> interrupted = 0;
};
#define WAIT(NAME, ...) {NAME, []([[maybe_unused]] Stage& s) { __VA_ARGS__; }}
#define BUSY(NAME, ...) WAIT(NAME, again_and_again([&] { __VA_ARGS__; }))
Wait waits[] = {
    WAIT("mutex", TLock guard(s.taken_mutex)),
    WAIT("semaphore with limit", TLock guard(s.taken_semaphore, long_limit)),
    WAIT("event", s.never.WaitForSignal()),
    WAIT("handler", wait_in_a_handler(s)),
    WAIT("write lock", s.taken_lock.WriteLock()),
    WAIT("write lock with limit", (void)s.taken_lock.WriteLock(long_limit)),
    WAIT("read lock", (void)s.taken_lock.ReadLock(long_limit)),
    WAIT("free read lock", s.taken_lock.ReadLockThreadIndependent()),
    WAIT("free write lock", (void)s.taken_lock.WriteLockThreadIndependent(long_limit)),
    WAIT("upgrade", upgrade(s)),
    WAIT("inner lock", s.inner_taken.ReadLock()),
    BUSY("busy write lock", TLock guard(s.busy_lock)),
    BUSY("busy write lock with limit", TLock guard(s.busy_lock, long_limit)),
    WAIT("stream", s.taken_stream << "text"),
    BUSY("busy stream", s.busy_stream << "text" << 1),
    WAIT("sleep", TThread::Sleep(INFINITE, TRUE)),
    BUSY("pauses", TThread::Pause()),
    WAIT("stop of another thread", s.StopThread(long_limit)),
    WAIT("end of another thread", s.InterruptThread(long_limit, long_limit)),
};

struct Victim final : TThreadClass {
  Victim(Stage& its_stage, Wait const& its_wait) : stage(its_stage), wait(its_wait) {
    StartThread();
  }
  void ThreadBody() override {
    struct Frame {
      ~Frame() { outcome = unwound; }
      std::atomic<int>& outcome;
    } const frame{outcome};
    outcome = in_body;
    TLock first(stage.own_mutex), second(stage.own_lock), third(stage.own_semaphore);
    wait.go_on(stage);
    fail(wait.name + ": ended its wait");
  }
  // The thread may end just before the call is queued.
  void interrupt() try {
    InterruptThread(0, obey);
  } catch (ESystemException const& error) {
    if (error["Code"].as_int() != ERROR_GEN_FAILURE) fail(error.what());
    StopThread(obey);
  }

  enum { not_begun, in_body, unwound };
  std::atomic<int> outcome = not_begun;
  Stage& stage;
  Wait const& wait;
};

// The pause ends somewhere between the first step of the body and its wait.
void interrupt_one(Stage& stage, Wait& wait, std::mt19937& random) {
  Victim victim(stage, wait);
  while (victim.outcome == Victim::not_begun) SwitchToThread();
  if (random() % 4 == 0) ::Sleep(random() % 3);
  for (auto i = random() % 3000; i > 0; --i) YieldProcessor();
  {
    std::jthread second;
    if (random() % 4 == 0) second = std::jthread([&victim] { victim.interrupt(); });
    victim.interrupt();
  }
  std::string const own = std::to_string(GetCurrentThreadId());
  expect(victim.outcome == Victim::unwound, wait.name + ": did not unwind");
  expect(stage.own_mutex.Lock(0) && stage.own_semaphore.Lock(0) &&
             stage.own_lock.GetStatusString() == "not_locked",
         wait.name + ": left a lock of its own taken");
  expect(stage.taken_lock.GetStatusString() == "locked_write, " + own + ":W" &&
             stage.read_taken_lock.GetStatusString() == "locked_read, " + own + ":R",
         wait.name + ": left a trace in the lock that it waited for");
  stage.own_mutex.Unlock();
  stage.own_semaphore.Unlock();
  ++wait.interrupted;
  ++moves;
}

// The kinds take turns, so that each has one however busy the machine is.
void interrupt_many(Round const& round, std::mt19937 random) {
  static std::atomic<unsigned int> turn = 0;
  Stage stage;
  TLock mutex(stage.taken_mutex), lock(stage.taken_lock);
  TReadLock const read(stage.read_taken_lock);
  TDebugStreamSession const session(stage.taken_stream);
  stage.inner_taken.hold_inner();
  while (!round.is_over() || turn < std::size(waits))
    interrupt_one(stage, waits[turn++ % std::size(waits)], random);
  stage.inner_taken.let_inner_go();
}

void interrupt_in_pairs(Round& round) {
  if (round.number == 0) Debug.AddWriter(MakeCounted<RunawayAlarm>());
  std::vector<std::jthread> threads;
  for (unsigned int i = 0; i < round.threads; ++i)
    threads.emplace_back(interrupt_many, std::cref(round), std::mt19937(round.random()));
}

std::string result() {
  unsigned int sum = 0;
  for (auto const& each : waits) {
    expect(each.interrupted > 0, each.name + ": was never interrupted");
    sum += each.interrupted;
  }
  return std::to_string(sum) + " interrupted in all kinds of waits";
}

Registered const interruption{{"interruption", 2, interrupt_in_pairs, result}};

}  // namespace
