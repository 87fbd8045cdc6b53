#include "velt/locks/MultiLockLayers.h"

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "velt/base/LoadOrderInternal.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/WaitableTimer.h"

using velt::detail::process_ends;

namespace {

constexpr int tries_before_sleep = 200;
constexpr int pauses_before_yield = 20;

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

  // Waits without limit, alertably and across queued calls; returns the kind of
  // the first that is signalled.
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

// The holder needs the length of a platform call at most, which is far less than
// the shortest sleep. It may wait for this very processor, so that is offered.
void _ml_interlocked_inner_lock::inner_lock_contended(_owner_id id, bool alertable) {
  for (int i = 0; i < tries_before_sleep; ++i) {
    for (int pause = 0; pause < pauses_before_yield && !is_free(); ++pause) YieldProcessor();
    if (is_free() && try_inner_lock(id)) return;
    SwitchToThread();
  }
  DWORD pause = 0;
  do SleepEx(pause++, alertable);
  while (!try_inner_lock(id));
}

// At the end of the process a thread may have been stopped amid an allocation.
_ml_full_owners_list::~_ml_full_owners_list() {
  if (owners_capacity > inline_records && !process_ends()) std::free(owners);
}

// By one record: holds beyond the inline ones are rare, and few.
void _ml_full_owners_list::grow() {
  bool const is_inline = owners_capacity <= inline_records;
  auto const size = static_cast<std::size_t>(owners_capacity + 1) * sizeof(_owner_id);
  auto const block = static_cast<_owner_id*>(std::realloc(is_inline ? nullptr : owners, size));
  if (!block) throw bad_allocation();
  if (is_inline) std::copy_n(owners, owners_count, block);
  owners = block;
  ++owners_capacity;
}

_ml_common::_owner_id _ml_full_owners_list::remove_owner(_owner_id id) noexcept {
  for (int i = owners_count - 1; i >= 0; --i) {
    if (!owners[i].same_owner(id)) continue;
    _owner_id const removed = owners[i];
    std::copy(owners + i + 1, owners + owners_count, owners + i);
    --owners_count;
    return removed;
  }
  return {no_record};
}

_ml_full_owners_list::share _ml_full_owners_list::owner_share(_owner_id id) const noexcept {
  auto const own = std::count_if(owners, owners + owners_count,
                                 [id](_owner_id each) { return each.same_owner(id); });
  if (own == 0) return share::none;
  return own == owners_count ? share::all : share::some;
}

bool _ml_full_owners_list::is_only_owner(_owner_id id) const noexcept {
  return owner_share(id) == share::all;
}

bool _ml_full_owners_list::all_one_owner() const noexcept {
  return owners_count != 0 && is_only_owner(owners[0]);
}

bool _ml_full_owners_list::no_write_owner() const noexcept {
  return owners_count != 0 && std::none_of(owners, owners + owners_count,
                                           [](_owner_id each) { return each.writes(); });
}

_ml_free_signal_event::event const _ml_free_signal_event::events[3] = {
    {sig_sole_owner, true, &_ml_free_signal_event::ev_sole_owner},
    {sig_read_open, true, &_ml_free_signal_event::ev_read_open},
    {sig_free, false, &_ml_free_signal_event::ev_free},
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

void _ml_free_signal_event::set_events(signal_set risen) noexcept {
  if (risen & sig_free) {
    ++wake_ups;
    last_wake_up_taken = false;
  }
  for (auto const& each : events)
    if ((risen & each.signal) && this->*each.handle) SetEvent(this->*each.handle);
}

void _ml_free_signal_event::reset_events(signal_set fallen) noexcept {
  if (last_wake_up_taken) fallen &= ~sig_free;
  for (auto const& each : events)
    if ((fallen & each.signal) && this->*each.handle) ResetEvent(this->*each.handle);
}

// A failure shows in the wait.
void* _ml_free_signal_event::handle_for(event const& each) noexcept {
  void*& handle = this->*each.handle;
  has_events = true;
  if (!handle) handle = CreateEventW(nullptr, each.manual, (signals & each.signal) != 0, nullptr);
  return handle;
}

bool _ml_free_signal_event::wait_signal(signal_set mask, _owner_id id, unsigned int timeout,
                                        wait_history& history) {
  if (timeout == 0) {
    inner_unlock();
    return false;
  }
  constexpr unsigned int time_up = 1;
  wait_list waits;
  for (auto const& each : events)
    if (mask & each.signal) waits.add(handle_for(each), each.signal);
  TWaitableTimer timer(DoNotInitialize);
  if (timeout != INFINITE) {
    timer.CreateTimer(true);
    timer.SetTimer(timeout, 0);
    waits.add(timer, time_up);
  }
  history = {.wake_ups_before = wake_ups};
  inner_unlock();

  for (;;) {
    auto const kind = waits.wait();
    history.failed = kind == wait_list::wait_failed;
    if (history.failed) throw ESystemException();
    if (kind == time_up) return false;
    history.took_wake_up = kind == sig_free;
    if (kind != sig_sole_owner) return true;
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
    if (history.took_wake_up) SetEvent(ev_free);
    throw;
  }
  if (history.took_wake_up && wake_ups == history.wake_ups_before + 1) last_wake_up_taken = true;
}
