// Threads do to one TMultiLock whatever it allows, at random, while queued calls
// throw into their waits; every step is held against a count that the test
// keeps.
//
//   multilock_torture [--seconds N] [--seed S] [--threads T]
//
// Ends with 0 if nothing was found, with 1 after a fault, with 2 after an option
// that it does not know.
#include <windows.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TortureOptions.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/MultiLock.h"

namespace {

using Options = velt_test::TortureOptions;

struct Interrupted {};

// Every way to fail ends the program, as the threads cannot be trusted then.
[[noreturn]] void fail(TMultiLock& lock, std::string const& fault) {
  std::string const status = lock.GetStatusString();
  std::printf("multilock_torture: %s\n  %s\n", fault.c_str(), status.c_str());
  std::fflush(stdout);
  std::_Exit(1);
}

// What is held, by the test's own account. A hold is counted after it was
// granted and uncounted before it ends, so the counts never exceed the truth:
// whatever they forbid is a fault of the lock.
class Account {
public:
  explicit Account(TMultiLock& the_lock) : lock(the_lock) {}

  void read_granted(int own_writes) {
    if (writers.load() != (own_writes > 0 ? 1 : 0)) fail(lock, "a reader beside a writer");
    ++reads;
  }
  void read_ends() { --reads; }

  // `own_reads`, `own_writes`: those that the asker held before.
  void write_granted(int own_reads, int own_writes) {
    if (own_writes > 0) return;
    if (writers.exchange(1) != 0) fail(lock, "two writers");
    if (reads.load() != own_reads) fail(lock, "a writer beside a reader");
    plain_value = plain_value + 1;
    ++expected_value;
  }
  void write_ends(int own_writes_left) {
    if (own_writes_left > 0) return;
    if (plain_value != expected_value.load()) fail(lock, "an update was lost");
    writers.store(0);
  }

  // Under a hold of any kind.
  void look() {
    std::int64_t const first = plain_value;
    for (int i = 0; i < 20; ++i) YieldProcessor();
    if (plain_value != first && writers.load() == 0) fail(lock, "a value changed under a reader");
  }

private:
  TMultiLock& lock;
  std::atomic<int> reads = 0, writers = 0;
  // Written only by writers, with nothing but the lock to guard it.
  std::int64_t volatile plain_value = 0;
  std::atomic<std::int64_t> expected_value = 0;
};

struct Counts {
  std::uint64_t steps = 0, granted = 0, refused = 0, dead_locks = 0, interrupted = 0;

  void add(Counts const& other) {
    steps += other.steps;
    granted += other.granted;
    refused += other.refused;
    dead_locks += other.dead_locks;
    interrupted += other.interrupted;
  }
};

class Worker {
public:
  Worker(TMultiLock& the_lock, Account& the_account, std::atomic<bool> const& stop_flag,
         unsigned int seed)
      : lock(the_lock), account(the_account), stop(stop_flag), random(seed) {
    HANDLE const started = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    thread = std::thread([this, started] { work(started); });
    WaitForSingleObject(started, INFINITE);
    CloseHandle(started);
  }
  ~Worker() {
    thread.join();
    CloseHandle(handle);
  }

  std::uint64_t progress() const { return moves.load(); }
  std::string doing() const { return id_text + ": " + step_name.load(); }

  // Queues a call that throws. One at a time, and only now and then, or the
  // thread would do nothing else.
  void interrupt() {
    if (!pending.exchange(true))
      QueueUserAPC(throw_once, handle, reinterpret_cast<ULONG_PTR>(this));
  }

  Counts counts;

private:
  static void CALLBACK throw_once(ULONG_PTR self) {
    reinterpret_cast<Worker*>(self)->pending = false;
    throw Interrupted();
  }

  enum class hold { read, write, free_read, free_write };

  unsigned int below(unsigned int limit) { return static_cast<unsigned int>(random() % limit); }

  void work(HANDLE started) {
    HANDLE const process = GetCurrentProcess();
    DuplicateHandle(process, GetCurrentThread(), process, &handle, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
    id_text = std::to_string(GetCurrentThreadId());
    SetEvent(started);
    while (!stop) {
      step();
      ++counts.steps;
      ++moves;
    }
    while (!holds.empty()) release();
    step_name = "done";
  }

  void step() {
    if (!holds.empty() && (below(100) < 55 || holds.size() > 5)) return release();
    if (below(16) == 0) return check_status();
    acquire();
  }

  int own(hold kind) const {
    int count = 0;
    for (hold const each : holds) count += each == kind;
    return count;
  }

  hold choose() {
    switch (below(6)) {
      case 0: return hold::write;
      case 1: return hold::free_read;
      case 2: return below(2) ? hold::free_write : hold::write;
      default: return hold::read;
    }
  }

  // What the thread would wait for could be its own: then a short limit, and none
  // at all beside a write hold of no thread, where a reader can spin for as long
  // as that is held.
  unsigned int choose_limit(hold kind) {
    unsigned int const limits[] = {0, 1, 3, 0xFFFFFFFF};
    if (own(hold::free_write) > 0) return 0;
    bool const asks_free = kind == hold::free_write || kind == hold::free_read;
    bool const own_in_the_way = asks_free ? !holds.empty() : own(hold::free_read) > 0;
    return limits[below(own_in_the_way ? 3 : 4)];
  }

  void acquire() {
    hold const kind = choose();
    unsigned int const limit = choose_limit(kind);
    try {
      if (take(kind, limit)) {
        granted(kind);
      } else {
        ++counts.refused;
        if (limit == 0xFFFFFFFF) fail(lock, "an untimed lock was refused");
      }
    } catch (Interrupted const&) {
      ++counts.interrupted;
    } catch (EDeadLockException const&) {
      if (kind != hold::write || own(hold::read) == 0 || own(hold::write) > 0)
        fail(lock, "a dead-lock without an upgrade");
      ++counts.dead_locks;
      // As the message asks: whoever gets it gives way.
      while (!holds.empty()) release();
    }
  }

  bool take(hold kind, unsigned int limit) {
    switch (kind) {
      case hold::read: step_name = "ReadLock"; return lock.ReadLock(limit);
      case hold::write: step_name = "WriteLock"; return lock.WriteLock(limit);
      case hold::free_read:
        step_name = "ReadLockThreadIndependent";
        return lock.ReadLockThreadIndependent(limit);
      default:
        step_name = "WriteLockThreadIndependent";
        return lock.WriteLockThreadIndependent(limit);
    }
  }

  void granted(hold kind) {
    ++counts.granted;
    step_name = "checks";
    switch (kind) {
      case hold::read: account.read_granted(own(hold::write)); break;
      case hold::write: account.write_granted(own(hold::read), own(hold::write)); break;
      case hold::free_read: account.read_granted(0); break;
      case hold::free_write: account.write_granted(0, 0); break;
    }
    holds.push_back(kind);
    account.look();
    if (below(8) == 0) Sleep(below(2));
  }

  // The newest hold of its owner. Holds of no thread are one owner to the lock,
  // but all that exist at once are of one kind, so any of them will do.
  void release() {
    hold const kind = holds.back();
    holds.pop_back();
    bool const is_free = kind == hold::free_read || kind == hold::free_write;
    if (kind == hold::read || kind == hold::free_read)
      account.read_ends();
    else
      account.write_ends(own(hold::write));
    step_name = is_free ? "UnlockThreadIndependent" : "Unlock";
    try {
      is_free ? lock.UnlockThreadIndependent() : lock.Unlock();
    } catch (Interrupted const&) {
      fail(lock, "a queued call threw out of a release");
    }
  }

  // The state as the lock tells it beside what this thread holds.
  void check_status() {
    step_name = "GetStatusString";
    try {
      std::string const status = lock.GetStatusString();
      bool const writes = own(hold::write) + own(hold::free_write) > 0;
      if (!holds.empty() && !status.starts_with(writes ? "locked_write, " : "locked_read, "))
        fail(lock, "the state does not fit the holds: " + status);
    } catch (Interrupted const&) {
      ++counts.interrupted;
    }
  }

  TMultiLock& lock;
  Account& account;
  std::atomic<bool> const& stop;
  std::mt19937 random;
  std::vector<hold> holds;
  std::atomic<std::uint64_t> moves = 0;
  std::atomic<char const*> step_name = "starts";
  std::atomic<bool> pending = false;
  std::string id_text;
  HANDLE handle = nullptr;
  std::thread thread;
};

using Workers = std::vector<std::unique_ptr<Worker>>;

// Fails when no thread has moved for long. Not one thread alone: starvation is
// allowed.
class Watchdog {
public:
  void look(Workers const& workers, TMultiLock& lock) {
    std::uint64_t sum = 0;
    for (auto const& each : workers) sum += each->progress();
    if (sum != last_sum) {
      last_sum = sum;
      last_move = GetTickCount64();
    } else if (GetTickCount64() - last_move > patience) {
      for (auto const& each : workers) std::printf("  %s\n", each->doing().c_str());
      fail(lock, "nothing moves");
    }
  }

private:
  static constexpr ULONGLONG patience = 15'000;
  std::uint64_t last_sum = 0;
  ULONGLONG last_move = GetTickCount64();
};

// Only while the threads take holds do queued calls come: at the end every
// thread must get away without help.
void disturb(Workers const& workers, TMultiLock& lock, Options const& options,
             std::atomic<bool>& stop) {
  std::mt19937 random(options.seed ^ 0x5EED);
  Watchdog watchdog;
  ULONGLONG const end = GetTickCount64() + options.seconds * 1'000ull;
  while (GetTickCount64() < end) {
    // Pauses without queued calls show the wake-ups that nobody helps along.
    if (random() % 50 != 0) {
      workers[random() % workers.size()]->interrupt();
      Sleep(random() % 3);
    } else {
      Sleep(100);
    }
    watchdog.look(workers, lock);
  }
  stop = true;
  for (bool all_done = false; !all_done; Sleep(20)) {
    all_done = true;
    for (auto const& each : workers) all_done &= each->doing().ends_with("done");
    watchdog.look(workers, lock);
  }
}

void torture(Options const& options) {
  std::printf("multilock_torture: seed %u, %u threads, %u s\n", options.seed, options.threads,
              options.seconds);
  std::fflush(stdout);
  TMultiLock lock;
  Account account(lock);
  std::atomic<bool> stop = false;
  Workers workers;
  for (unsigned int i = 0; i < options.threads; ++i)
    workers.push_back(
        std::make_unique<Worker>(lock, account, stop, options.seed * 1'000u + i));
  disturb(workers, lock, options, stop);

  Counts sum;
  for (auto const& each : workers) sum.add(each->counts);
  workers.clear();
  if (lock.GetStatusString() != "not_locked") fail(lock, "something is still held");
  std::printf("%llu steps: %llu granted, %llu refused, %llu dead-locks broken, %llu interrupted\n",
              static_cast<unsigned long long>(sum.steps),
              static_cast<unsigned long long>(sum.granted),
              static_cast<unsigned long long>(sum.refused),
              static_cast<unsigned long long>(sum.dead_locks),
              static_cast<unsigned long long>(sum.interrupted));
  if (sum.granted == 0 || sum.refused == 0 || sum.dead_locks == 0 || sum.interrupted == 0)
    fail(lock, "some outcome never occurred");
}

}  // namespace

int main(int count, char** arguments) {
  SaveMiniDumpOnCppException = false;
  torture(velt_test::torture_options(count, arguments, "--threads", 8, 2, 64));
}
