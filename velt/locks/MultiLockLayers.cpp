#include "velt/locks/MultiLockLayers.h"

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/WaitableTimer.h"

namespace {

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

void _ml_interlocked_inner_lock::inner_lock(_owner_id id) {
  unsigned int expected = free_word;
  if (!word.compare_exchange_strong(expected, id.bits, std::memory_order_acquire)) [[unlikely]]
    inner_lock_contended(id);
}

void _ml_interlocked_inner_lock::inner_lock_contended(_owner_id id) {
  unsigned int expected;
  DWORD pause = 0;
  do {
    SleepEx(pause++, TRUE);
    expected = free_word;
  } while (!word.compare_exchange_strong(expected, id.bits, std::memory_order_acquire));
}

void _ml_interlocked_inner_lock::inner_unlock() noexcept {
  word.exchange(free_word, std::memory_order_release);
}

_ml_full_owners_list::~_ml_full_owners_list() {
  if (owners_capacity > inline_records) std::free(owners);
}

void _ml_full_owners_list::add_owner(_owner_id record) {
  if (owners_count == owners_capacity) [[unlikely]]
    grow();
  owners[owners_count++] = record;
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
  inner_lock({GetCurrentThreadId()});
  for (HANDLE const handle : {ev_free, ev_sole_owner, ev_read_open})
    if (handle) CloseHandle(handle);
}

void _ml_free_signal_event::raise(signal_set mask) noexcept {
  signal_set const risen = mask & ~signals;
  signals |= risen;
  for (auto const& each : events)
    if ((risen & each.signal) && this->*each.handle) SetEvent(this->*each.handle);
}

void _ml_free_signal_event::lower(signal_set mask) noexcept {
  signal_set const fallen = mask & signals;
  signals &= ~fallen;
  for (auto const& each : events)
    if ((fallen & each.signal) && this->*each.handle) ResetEvent(this->*each.handle);
}

void _ml_free_signal_event::set_signal(signal_set mask) noexcept {
  raise(mask);
  inner_unlock();
}

void _ml_free_signal_event::reset_signal(signal_set mask) noexcept {
  lower(mask);
  inner_unlock();
}

// A failure shows in the wait.
void* _ml_free_signal_event::handle_for(event const& each) noexcept {
  void*& handle = this->*each.handle;
  if (!handle) handle = CreateEventW(nullptr, each.manual, (signals & each.signal) != 0, nullptr);
  return handle;
}

bool _ml_free_signal_event::wait_signal(signal_set mask, _owner_id id, unsigned int timeout,
                                        bool* failed) {
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
  inner_unlock();

  for (;;) {
    auto const kind = waits.wait();
    if (kind == wait_list::wait_failed) {
      if (failed) *failed = true;
      throw ESystemException();
    }
    if (kind == time_up) return false;
    if (kind != sig_sole_owner) return true;
    inner_lock(id);
    bool const is_the_owner = is_only_owner(id);
    inner_unlock();
    if (is_the_owner) return true;
  }
}

// Wakes at worst somebody who finds nothing to do. The event is there: every
// wait is for sig_free, too.
void _ml_free_signal_event::inner_lock_after_wait(_owner_id id) {
  try {
    inner_lock(id);
  } catch (...) {
    SetEvent(ev_free);
    throw;
  }
}
