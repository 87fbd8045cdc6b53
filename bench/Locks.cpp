#include <windows.h>

#include <comutil.h>

#include <atomic>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>

#include <boost/thread/shared_mutex.hpp>

#include "bench/Rows.h"
#include "bench/Threads.h"
#include "bench/boundary/Boundary.h"
#include "velt/locks/CriticalSection.h"
#include "velt/locks/Event.h"
#include "velt/locks/MultiLock.h"
#include "velt/locks/Mutex.h"
#include "velt/locks/Semaphore.h"
#include "velt/value/PropertyList.h"

namespace bench {
namespace {

// For the length of the process; a lock is not to be destroyed while a thread
// of the benchmarks might still be in it.
template <class T>
T& the() {
  static T& object = *new T;
  return object;
}

template <class T>
T& another() {
  static T& object = *new T;
  return object;
}

struct RawSection : CRITICAL_SECTION {
  RawSection() { InitializeCriticalSection(this); }
};

struct RawSlimLock {
  SRWLOCK native = SRWLOCK_INIT;
};

void guard_section() {
  TLock const guard(input(the<TCriticalSection>()));
  keep(guard);
}

void pass_raw_section() {
  EnterCriticalSection(&input(the<RawSection>()));
  LeaveCriticalSection(&input(the<RawSection>()));
}

void write_pair() {
  auto& lock = input(the<TMultiLock>());
  lock.WriteLock();
  lock.Unlock();
}

void read_pair() {
  auto& lock = input(the<TMultiLock>());
  lock.ReadLock();
  lock.Unlock();
}

// A lock that made a thread wait, once, until its limit was up.
struct LockAfterWait : TMultiLock {
  LockAfterWait() {
    WriteLockThreadIndependent();
    static_cast<void>(WriteLock(1));
    UnlockThreadIndependent();
  }
};

void write_pair_after_wait() {
  auto& lock = input(the<LockAfterWait>());
  lock.WriteLock();
  lock.Unlock();
}

template <class Mutex>
void exclusive_pair() {
  auto& mutex = input(the<Mutex>());
  mutex.lock();
  mutex.unlock();
}

template <class Mutex>
void shared_pair() {
  auto& mutex = input(the<Mutex>());
  mutex.lock_shared();
  mutex.unlock_shared();
}

void slim_shared_pair() {
  auto& lock = input(the<RawSlimLock>());
  AcquireSRWLockShared(&lock.native);
  ReleaseSRWLockShared(&lock.native);
}

void interlocked_pair() {
  auto& word = input(the<std::atomic<unsigned>>());
  unsigned expected = 0;
  word.compare_exchange_strong(expected, 1);
  word.exchange(0);
}

// What any lock with a guarded record of its holders has to do at the least.
void two_interlocked_pairs() {
  interlocked_pair();
  interlocked_pair();
}

// One hold in `interval` is for writing. Each thread begins elsewhere, so that they
// do not write in step.
template <class Lock, int interval>
void mixed_holds(int index, std::uint64_t passes) {
  auto& lock = the<Lock>();
  for (auto turn = static_cast<std::uint64_t>(index) * 7; passes != 0; --passes)
    if (turn++ % interval == 0)
      lock.write(work_shortly);
    else
      lock.read(work_shortly);
}

struct MixedMultiLock : TMultiLock {
  void read(void (*work)()) {
    TReadLock const guard(*this);
    work();
  }
  void write(void (*work)()) {
    TLock const guard(*this);
    work();
  }
};

struct MixedSharedMutex : std::shared_mutex {
  void read(void (*work)()) {
    std::shared_lock const guard(*this);
    work();
  }
  void write(void (*work)()) {
    std::lock_guard const guard(*this);
    work();
  }
};

struct MixedSlimLock : RawSlimLock {
  void read(void (*work)()) {
    AcquireSRWLockShared(&native);
    work();
    ReleaseSRWLockShared(&native);
  }
  void write(void (*work)()) {
    AcquireSRWLockExclusive(&native);
    work();
    ReleaseSRWLockExclusive(&native);
  }
};

// A pass is many holds: the threads of one pass must meet, and not just begin.
constexpr std::uint64_t holds_at_once = 100'000;

template <class Lock, int threads, int interval>
void mixed(std::uint64_t count) {
  on_threads(threads, mixed_holds<Lock, interval>, count * holds_at_once / threads);
}

template <int threads, int interval>
Row mixed_row(char const* name, double goal_of_slim) {
  return {name, mixed<MixedMultiLock, threads, interval>,
          {{"std::shared_mutex", 0.5, mixed<MixedSharedMutex, threads, interval>},
           {"SRWLOCK", goal_of_slim, mixed<MixedSlimLock, threads, interval>}}};
}

void read_in_read() {
  auto& lock = input(the<TMultiLock>());
  lock.ReadLock();
  lock.ReadLock();
  lock.Unlock();
  lock.Unlock();
}

void lock_twice() {
  auto& mutex = input(the<std::recursive_mutex>());
  mutex.lock();
  mutex.lock();
  mutex.unlock();
  mutex.unlock();
}

void upgrade() {
  auto& lock = input(the<TMultiLock>());
  lock.ReadLock();
  lock.WriteLock();
  lock.Unlock();
  lock.Unlock();
}

void upgrade_boost() {
  auto& mutex = input(the<boost::upgrade_mutex>());
  mutex.lock_upgrade();
  mutex.unlock_upgrade_and_lock();
  mutex.unlock_and_lock_upgrade();
  mutex.unlock_upgrade();
}

void upgrade_boost_in_dll() {
  auto& lock = input(the<BoostUpgradeLock>());
  lock.read();
  lock.upgrade();
  lock.end_upgrade();
  lock.end_read();
}

// Every thread makes its share of the passes.
template <int threads, void (*pass)()>
void share_out(std::uint64_t count) {
  on_threads(
      threads,
      [](int, std::uint64_t passes) {
        for (; passes != 0; --passes) pass();
      },
      count / threads + 1);
}

// Two binary gates, each opened by one thread and passed by the other: a pass is
// a hand-off there and one back.
template <class Gate>
void hand_to_and_fro(std::uint64_t count) {
  on_threads(
      2,
      [](int index, std::uint64_t passes) {
        auto& mine = index == 0 ? the<Gate>() : another<Gate>();
        auto& theirs = index == 0 ? another<Gate>() : the<Gate>();
        for (; passes != 0; --passes) {
          if (index == 0) theirs.open();
          mine.pass();
          if (index == 1) theirs.open();
        }
      },
      count);
}

// A write lock that is held while the gate is shut.
struct LockGate {
  TMultiLock lock;
  LockGate() { lock.WriteLockThreadIndependent(); }
  void open() { lock.UnlockThreadIndependent(); }
  void pass() { lock.WriteLockThreadIndependent(); }
};

struct EventGate {
  HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  void open() { SetEvent(event); }
  void pass() { WaitForSingleObjectEx(event, INFINITE, TRUE); }
};

struct FullSemaphore : TSemaphore {
  FullSemaphore() : TSemaphore(4) {}
};

template <class Lock>
void kernel_lock_pair() {
  auto& lock = input(the<Lock>());
  lock.Lock();
  lock.Unlock();
}

void raw_mutex_pair() {
  static HANDLE const mutex = CreateMutexW(nullptr, FALSE, nullptr);
  WaitForSingleObjectEx(mutex, INFINITE, TRUE);
  ReleaseMutex(mutex);
}

void raw_semaphore_pair() {
  static HANDLE const semaphore = CreateSemaphoreW(nullptr, 4, 4, nullptr);
  LONG previous;
  WaitForSingleObjectEx(semaphore, INFINITE, TRUE);
  ReleaseSemaphore(semaphore, 1, &previous);
}

void set_and_wait() {
  auto& event = input(the<TEvent>());
  event.SetEvent();
  event.WaitForSignal();
}

void raw_set_and_wait() {
  static HANDLE const event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  SetEvent(event);
  WaitForSingleObjectEx(event, INFINITE, TRUE);
}

void set_raw_event() {
  static HANDLE const event = CreateEventW(nullptr, TRUE, TRUE, nullptr);
  SetEvent(event);
}

constexpr int property_count = 1000;

_bstr_t property_name(int number) {
  return ("Settings.Section." + std::to_string(number)).c_str();
}

struct Properties : TPropertyList {
  Properties() {
    for (int i = 0; i < property_count; ++i) PutProperty(property_name(i), i);
  }
};

struct MapUnderMutex {
  std::map<_bstr_t, _value_t, velt::detail::less_without_case> map;
  std::shared_mutex mutex;
  MapUnderMutex() {
    for (int i = 0; i < property_count; ++i) map[property_name(i)] = i;
  }
  _value_t get(_bstr_t const& name) {
    std::shared_lock const guard(mutex);
    auto const found = map.find(name);
    return found == map.end() ? _value_t() : found->second;
  }
};

_bstr_t& wanted_name() {
  static auto& name = *new _bstr_t(property_name(617));
  return name;
}

}  // namespace

std::vector<Row> machine_rows() {
  return {
      {"interlocked_pair", loop([] { interlocked_pair(); }),
       {{"SetEvent", no_goal, loop([] { set_raw_event(); })}}},
  };
}

std::vector<Row> lock_rows() {
  return {
      {"critical_section", loop([] { guard_section(); }),
       {{"the raw calls", 1.1, loop([] { pass_raw_section(); })}}},

      {"multilock_write", loop([] { write_pair(); }),
       {{"std::shared_mutex", 0.6, loop([] { exclusive_pair<std::shared_mutex>(); })},
        {"boost::shared_mutex", 1.3, loop([] { exclusive_pair<boost::shared_mutex>(); })},
        {"two interlocked pairs", 1.5, loop([] { two_interlocked_pairs(); })}}},

      {"multilock_read", loop([] { read_pair(); }),
       {{"std::shared_mutex", 0.6, loop([] { shared_pair<std::shared_mutex>(); })},
        {"boost::shared_mutex", 1.3, loop([] { shared_pair<boost::shared_mutex>(); })},
        {"two interlocked pairs", 1.5, loop([] { two_interlocked_pairs(); })},
        {"SRWLOCK, shared", 1.0, loop([] { slim_shared_pair(); })}}},

      {"multilock_recursion", loop([] { read_in_read(); }),
       {{"std::recursive_mutex", 1.4, loop([] { lock_twice(); })}}},

      {"multilock_upgrade", loop([] { upgrade(); }),
       {{"boost::upgrade_mutex", 1.2, loop([] { upgrade_boost(); })},
        {"the same in a DLL", no_goal, loop([] { upgrade_boost_in_dll(); })}}},

      {"multilock_readers_2", share_out<2, read_pair>,
       {{"std::shared_mutex", 1.0, share_out<2, shared_pair<std::shared_mutex>>}}},

      {"multilock_readers_4", share_out<4, read_pair>,
       {{"std::shared_mutex", 1.0, share_out<4, shared_pair<std::shared_mutex>>}}},

      {"multilock_after_wait", loop([] { write_pair_after_wait(); }),
       {{"the same before", 1.05, loop([] { write_pair(); })}}},

      mixed_row<2, 100>("multilock_mixed_2", 1.0),
      mixed_row<2, 10>("multilock_mixed_2_10", 1.0),
      mixed_row<8, 100>("multilock_mixed_8", 2.0),
      mixed_row<8, 10>("multilock_mixed_8_10", 2.0),

      {"multilock_handoff", hand_to_and_fro<LockGate>,
       {{"a pair of events", 1.2, hand_to_and_fro<EventGate>}}},

      {"kernel_mutex", loop([] { kernel_lock_pair<TMutex>(); }),
       {{"the raw calls", 1.02, loop([] { raw_mutex_pair(); })}}},

      {"event", loop([] { set_and_wait(); }),
       {{"the raw calls", 1.02, loop([] { raw_set_and_wait(); })}}},

      {"semaphore", loop([] { kernel_lock_pair<FullSemaphore>(); }),
       {{"the raw calls", 1.02, loop([] { raw_semaphore_pair(); })}}},

      {"property_get", loop([] { keep(the<Properties>().GetProperty(input(wanted_name()))); }),
       {{"std::map, shared_mutex", 0.85,
         loop([] { keep(the<MapUnderMutex>().get(input(wanted_name()))); })}}},
  };
}

}  // namespace bench
