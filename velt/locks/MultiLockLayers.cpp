#include "velt/locks/MultiLockLayers.h"

#include <windows.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <new>

#include "velt/base/LoadOrderInternal.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/WaitableTimer.h"

using velt::detail::process_ends;

namespace {

// Some hundred microseconds in all.
constexpr int tries_before_sleep = 200;

// Some ten microseconds, about what a wait costs.
constexpr int tries_before_wait = 100;

// A thread that could not go on leaves the lock alone for up to a microsecond. Meanwhile
// others make many holds; each look would take the memory of the lock from them.
void stay_away() noexcept {
  for (int pause = 0; pause < 20; ++pause) YieldProcessor();
}

// A wake-up that is under way is not sent again, except after this many releases, twice as
// many, and so on: the thread that has it may have been killed.
constexpr unsigned int first_wake_ups_saved = 64;

// The counts of the three signals share a word.
constexpr int bits_of_count = 21;
constexpr unsigned long long highest_count = (1ull << bits_of_count) - 1;

struct bad_allocation : std::bad_alloc {
  char const* what() const noexcept override { return "bad allocation"; }
};

// The handles of one wait, in order of priority, and what each stands for.
class wait_list {
public:
  void add(HANDLE handle, unsigned int kind) noexcept {
    handles[count] = handle;
    kinds[count++] = kind;
  }

  static constexpr unsigned int wait_failed = 0;

  // Waits alertably until a handle is signalled and returns the kind of the first
  // such handle. The wait itself has no limit: a queued call ends it, and with the
  // next one a limit would begin anew. A timer among the handles runs on.
  unsigned int wait() const {
    DWORD result;
    do {
      result = count == 1 ? WaitForSingleObjectEx(handles[0], INFINITE, TRUE)
                          : WaitForMultipleObjectsEx(count, handles, FALSE, INFINITE, TRUE);
      if (result == WAIT_FAILED) return wait_failed;
    } while (result == WAIT_IO_COMPLETION);
    return kinds[result - WAIT_OBJECT_0];
  }

private:
  static constexpr int most = 4;
  HANDLE handles[most];
  unsigned int kinds[most];
  DWORD count = 0;
};

}  // namespace

// A contender spins and yields before it first sleeps: the word is held for a few
// platform calls at most, less than the shortest sleep, and its holder may be
// waiting for this very processor. The sleeps grow, so that the contenders of a
// suspended holder leave the processors alone.
void _ml_interlocked_inner_lock::inner_lock_contended(_owner_id id, bool alertable) {
  for (int i = 0; i < tries_before_sleep; ++i) {
    stay_away();
    if (is_free() && try_word(id)) return;
    SwitchToThread();
  }
  DWORD pause = 0;
  do SleepEx(pause++, alertable);
  while (!try_word(id));
}

// At the end of the process a thread may have been stopped amid an allocation.
_ml_full_owners_list::~_ml_full_owners_list() {
  if (owners_capacity > inline_records && !process_ends()) std::free(owners);
}

// By one record: locks with more holds than the inline ones are rare, and most of
// them have few.
void _ml_full_owners_list::grow() {
  bool const is_inline = owners_capacity <= inline_records;
  auto const size = static_cast<std::size_t>(owners_capacity + 1) * sizeof(_owner_id);
  auto const block = static_cast<_owner_id*>(std::realloc(is_inline ? nullptr : owners, size));
  if (!block) throw bad_allocation();
  if (is_inline) std::copy_n(owners, owners_count, block);
  owners = block;
  ++owners_capacity;
}

// From the newest on, since releases mostly come in the reverse order.
_ml_common::_owner_id _ml_full_owners_list::remove_older_owner(_owner_id id) noexcept {
  for (int i = owners_count - 1; i >= 0; --i) {
    if (!owners[i].same_owner(id)) continue;
    _owner_id const removed = owners[i];
    std::copy(owners + i + 1, owners + owners_count, owners + i);
    --owners_count;
    return removed;
  }
  return {no_record};
}

// The event of free is automatic, because only one waiter can get a free lock. It
// stands last: a waiter that can go on by one of the manual events, which stay up
// for everybody, leaves the one wake-up to others.
_ml_free_signal_event::event const _ml_free_signal_event::events[3] = {
    {sig_sole_owner, true, &_ml_free_signal_event::ev_sole_owner, 1},
    {sig_read_open, true, &_ml_free_signal_event::ev_read_open, 1ull << bits_of_count},
    {sig_free, false, &_ml_free_signal_event::ev_free, 1ull << 2 * bits_of_count},
};

_ml_free_signal_event::~_ml_free_signal_event() {
  // A static lock of a DLL is destroyed after the platform has stopped all other
  // threads. If one of them held the inner word, nobody is left to release it.
  _owner_id const id{static_cast<unsigned int>(GetCurrentThreadId())};
  if (!try_inner_lock(id)) {
    if (process_ends()) return;
    inner_lock_to_release(id);
  }
  for (HANDLE const handle : {ev_free, ev_sole_owner, ev_read_open})
    if (handle) CloseHandle(handle);
}

// While an object of this class exists, its thread counts as a waiter.
class _ml_free_signal_event::counted_wait {
public:
  counted_wait(_ml_free_signal_event& lock, signal_set mask) noexcept : waiting(lock.waiting) {
    for (auto const& each : events)
      if (mask & each.signal) mine += each.one_waiter;
    waiting += mine;
  }
  counted_wait(counted_wait const&) = delete;
  counted_wait& operator=(counted_wait const&) = delete;
  ~counted_wait() { waiting -= mine; }

private:
  _ml_shared<waiter_counts>& waiting;
  waiter_counts mine = 0;
};

bool _ml_free_signal_event::is_awaited(event const& each) const noexcept {
  return (waiting & each.one_waiter * highest_count) != 0;
}

// The results of the calls are not checked here and below: a valid event cannot
// fail, and an event that could not be made shows in the next wait.
void _ml_free_signal_event::raise(signal_set mask) noexcept {
  signal_set const risen = mask & ~signals;
  signals = signals | mask;
  for (auto const& each : events) {
    if (!(risen & each.signal) || !is_awaited(each)) continue;
    if (!(shown & each.signal))
      saved_wake_ups = 0;
    else if (++saved_wake_ups < first_wake_ups_saved || !std::has_single_bit(saved_wake_ups))
      continue;
    SetEvent(this->*each.handle);
    shown |= each.signal;
  }
}

void _ml_free_signal_event::set_awaited_signal(signal_set mask) noexcept {
  raise(mask);
  inner_unlock();
}

// The event of free stays set for the thread that it is about to wake, or has woken.
// That thread finds the lock taken and waits again.
void _ml_free_signal_event::reset_awaited_signal(signal_set mask) noexcept {
  signal_set const fallen = mask & signals;
  signals = signals & ~mask;
  for (auto const& each : events) {
    if (!each.manual || !(fallen & shown & each.signal) || !is_awaited(each)) continue;
    ResetEvent(this->*each.handle);
    shown &= ~each.signal;
  }
  inner_unlock();
}

// For a new waiter, under the inner lock: gives the event the state of its signal,
// from which it may have departed while nobody waited.
void* _ml_free_signal_event::event_in_line(event const& each) noexcept {
  void*& handle = this->*each.handle;
  signal_set const up = signals & each.signal;
  if (!handle)
    handle = CreateEventW(nullptr, each.manual, up != 0, nullptr);
  else if (up != (shown & each.signal))
    up ? SetEvent(handle) : ResetEvent(handle);
  shown = (shown & ~each.signal) | up;
  return handle;
}

void _ml_free_signal_event::spin_for(signal_set mask, wait_history& history) const noexcept {
  while (history.spins++ < tries_before_wait) {
    stay_away();
    if (signals & mask) return;
    SwitchToThread();
  }
}

bool _ml_free_signal_event::wait_signal(signal_set mask, _owner_id id, unsigned int timeout,
                                        wait_history& history) {
  if (timeout == 0) {
    inner_unlock();
    return false;
  }
  if (history.spins < tries_before_wait) {
    history = {.spins = history.spins};
    inner_unlock();
    spin_for(mask, history);
    return true;
  }
  history = {};
  constexpr unsigned int time_up = 1;
  wait_list waits;
  for (auto const& each : events)
    if (mask & each.signal) waits.add(event_in_line(each), each.signal);
  TWaitableTimer timer(DoNotInitialize);
  if (timeout != INFINITE) {
    timer.CreateTimer(true);
    timer.SetTimer(timeout, 0);
    waits.add(timer, time_up);
  }
  counted_wait const counted(*this, mask);
  inner_unlock();

  for (;;) {
    auto const kind = waits.wait();
    history.failed = kind == wait_list::wait_failed;
    if (history.failed) throw ESystemException();
    if (kind == time_up) return false;
    history.took_wake_up = kind == sig_free;
    if (kind != sig_sole_owner) return true;
    // The event wakes everybody who waits for it, and only one of them is the owner.
    inner_lock(id);
    bool const is_the_owner = is_only_owner(id);
    inner_unlock();
    if (is_the_owner) return true;
  }
}

void _ml_free_signal_event::inner_lock_after_wait(_owner_id id, wait_history const& history) {
  try {
    inner_lock(id);
  } catch (...) {
    // One wake-up is all that the end of the last hold gives. Kept by a thread that
    // leaves, it would be lost to the others, and they would wait for ever.
    if (history.took_wake_up) SetEvent(ev_free);
    throw;
  }
  if (history.took_wake_up) shown &= ~sig_free;
}
