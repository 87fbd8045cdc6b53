// Threads do to one TMultiLock whatever it allows, while queued calls throw into
// their waits; every step is held against a count that the scene keeps.
#include "velt/locks/MultiLock.h"

#include <algorithm>
#include <array>
#include <memory>
#include <thread>

#include "tests/torture/Torture.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/Handle.h"

namespace {

using velt_test::expect, velt_test::fail, velt_test::moves, velt_test::Round;

struct Interrupted {};

enum outcome { granted, refused, dead_locked, interrupted };
std::array<std::atomic<unsigned int>, 4> outcomes;

// What is held. A hold is counted after it was granted and uncounted before it ends,
// so the counts never exceed the truth: whatever they forbid is a fault of the lock.
struct Table {
  TMultiLock lock;
  std::atomic<int> readers = 0, writers = 0;
  // Written only by writers, with nothing but the lock to guard it.
  __int64 volatile value = 0;
  std::atomic<__int64> writes = 0;
  std::atomic<bool> stop = false;
};

class Worker {
public:
  Worker(Table& the_table, unsigned int seed) : table(the_table), random(seed) {
    while (!id) Sleep(0);
    handle.AttachHandle(OpenThread(THREAD_SET_CONTEXT, FALSE, id));
  }

  // One at a time, and only now and then, or the thread would do nothing else.
  void interrupt() {
    if (!pending.exchange(true))
      QueueUserAPC(throw_once, handle, reinterpret_cast<ULONG_PTR>(this));
  }

private:
  enum hold { read, write, free_read, free_write };

  static void CALLBACK throw_once(ULONG_PTR self) {
    reinterpret_cast<Worker*>(self)->pending = false;
    throw Interrupted();
  }

  unsigned int below(unsigned int limit) { return static_cast<unsigned int>(random() % limit); }
  int own(hold kind) const { return static_cast<int>(std::ranges::count(holds, kind)); }

  void work() {
    id = GetCurrentThreadId();
    for (; !table.stop; ++moves)
      if (!holds.empty() && (below(100) < 55 || holds.size() > 5))
        release();
      else
        acquire();
    while (!holds.empty()) release();
  }

  // What the thread would wait for could be its own: then a short limit, and none at
  // all beside a write hold of no thread, where a reader can spin for as long as that
  // is held.
  unsigned int limit_for(hold kind) {
    if (own(free_write) > 0) return 0;
    bool const own_in_the_way = kind >= free_read ? !holds.empty() : own(free_read) > 0;
    return std::array{0u, 1u, 3u, 0xFFFFFFFF}[below(own_in_the_way ? 3 : 4)];
  }

  void acquire() {
    constexpr hold kinds[] = {read, read, read, read, write, write, write, free_read, free_write};
    hold const kind = kinds[below(std::size(kinds))];
    unsigned int const limit = limit_for(kind);
    try {
      bool const is_held = kind == read        ? table.lock.ReadLock(limit)
                           : kind == write     ? table.lock.WriteLock(limit)
                           : kind == free_read ? table.lock.ReadLockThreadIndependent(limit)
                                               : table.lock.WriteLockThreadIndependent(limit);
      ++outcomes[is_held ? granted : refused];
      expect(is_held || limit != 0xFFFFFFFF, "an untimed lock was refused");
      if (is_held) use(kind);
    } catch (Interrupted const&) {
      ++outcomes[interrupted];
    } catch (EDeadLockException const&) {
      expect(kind == write && own(read) > 0 && own(write) == 0, "a dead-lock without an upgrade");
      ++outcomes[dead_locked];
      // Whoever gets it gives way.
      while (!holds.empty()) release();
    }
  }

  void use(hold kind) {
    if (kind == read || kind == free_read) {
      expect(table.writers == own(write), "a reader beside a writer");
      ++table.readers;
    } else {
      expect(table.readers == own(read), "a writer beside a reader");
      expect(table.writers++ == own(write), "two writers");
      table.value = table.value + 1;
      ++table.writes;
    }
    holds.push_back(kind);
    __int64 const before = table.value;
    if (below(8) == 0) Sleep(below(2));
    expect(own(write) + own(free_write) > 0 || table.value == before, "a reader saw a change");
  }

  // The newest hold. Holds of no thread are one owner to the lock, but all that exist
  // at once are of one kind, so any of them will do.
  void release() {
    hold const kind = holds.back();
    holds.pop_back();
    bool const reads = kind == read || kind == free_read;
    expect(reads || table.value == table.writes, "an update was lost");
    --(reads ? table.readers : table.writers);
    kind < free_read ? table.lock.Unlock() : table.lock.UnlockThreadIndependent();
  }

  Table& table;
  std::mt19937 random;
  std::vector<hold> holds;
  std::atomic<bool> pending = false;
  std::atomic<unsigned long> id = 0;
  THandle handle;
  std::jthread thread{[this] { work(); }};
};

// Every third round has few threads, and every other one no queued calls, which
// could help a waiter whose wake-up was lost. At the end of any all get away alone.
void round(Round& round) {
  Table table;
  velt_test::state = [&] { return table.lock.GetStatusString(); };
  std::vector<std::unique_ptr<Worker>> workers(round.number % 3 == 2 ? 4 : round.threads);
  for (auto& each : workers)
    each = std::make_unique<Worker>(table, static_cast<unsigned int>(round.random()));
  for (; !round.is_over(); Sleep(round.random() % 3))
    if (round.number % 2 == 0) workers[round.random() % workers.size()]->interrupt();
  table.stop = true;
  workers.clear();
  expect(table.lock.GetStatusString() == "not_locked", "something is still held");
}

std::string result() {
  for (auto const& each : outcomes) expect(each > 0, "some outcome never occurred");
  return std::to_string(outcomes[granted]) + " holds";
}

velt_test::Registered const scene({"lock", 32, round, result});

}  // namespace
