#include "velt/locks/MultiLock.h"

#include <windows.h>
#include <winternl.h>

#include <cstddef>

#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/MultiLockProtocolInternal.h"
#include "velt/text/Numbers.h"

TMultiLock& TMultiLock::operator=(TMultiLock const& other) noexcept {
  _ml_free_signal_event::operator=(other);
  rw_waiters.store(other.rw_waiters.load());
  return *this;
}

namespace {

// Where a thread's block has its id, so that one instruction reads it; 0 until that is
// known. No document gives the place, so it is compared once.
DWORD const place_of_id = [] {
  DWORD volatile const place = offsetof(TEB, Reserved1[9]);
  return __readgsdword(place) == GetCurrentThreadId() ? place : 0;
}();

}  // namespace

_ml_common::_owner_id TMultiLock::own_id() noexcept {
  DWORD const place = place_of_id, id = place ? __readgsdword(place) : GetCurrentThreadId();
  return _owner_id{static_cast<unsigned int>(id)}.reading();
}

bool TMultiLock::Lock(unsigned int timeout) { return WriteLock(timeout); }
void TMultiLock::Lock() { WriteLock(); }
void TMultiLock::Unlock() { _unlock(own_id()); }

bool TMultiLock::ReadLock(unsigned int timeout) { return _read_lock(timeout, own_id()); }
void TMultiLock::ReadLock() { _read_lock(no_limit, own_id()); }
bool TMultiLock::WriteLock(unsigned int timeout) { return _write_lock(timeout, own_id()); }
void TMultiLock::WriteLock() { _write_lock(no_limit, own_id()); }

bool TMultiLock::ReadLockThreadIndependent(unsigned int timeout) {
  return _read_lock_independent(timeout, no_thread());
}
void TMultiLock::ReadLockThreadIndependent() { _read_lock_independent(no_limit, no_thread()); }
bool TMultiLock::WriteLockThreadIndependent(unsigned int timeout) {
  return _write_lock_independent(timeout, no_thread());
}
void TMultiLock::WriteLockThreadIndependent() { _write_lock_independent(no_limit, no_thread()); }
void TMultiLock::UnlockThreadIndependent() { _unlock(no_thread()); }

inline void TMultiLock::enter_free(state_value entered, _owner_id record,
                                   signal_set lowered) noexcept {
  state = entered;
  add_first_owner(record);
  reset_signal(lowered);
}

bool TMultiLock::_read_lock(unsigned int timeout, _owner_id id) {
  bool const has_inner_lock = try_inner_lock(id);
  if (!has_inner_lock || state != not_locked) [[unlikely]]
    return read_lock_slowly<false>(timeout, id, has_inner_lock);
  enter_free(locked_read, id.reading(), sig_free);
  return true;
}

bool TMultiLock::_read_lock_independent(unsigned int timeout, _owner_id id) {
  return read_lock_slowly<true>(timeout, id, try_inner_lock(id));
}

bool TMultiLock::_write_lock(unsigned int timeout, _owner_id id) {
  bool const has_inner_lock = try_inner_lock(id);
  if (!has_inner_lock || state != not_locked) [[unlikely]]
    return write_lock_slowly<false>(timeout, id, has_inner_lock);
  enter_free(locked_write, id.writing(), sig_free | sig_sole_owner | sig_read_open);
  return true;
}

bool TMultiLock::_write_lock_independent(unsigned int timeout, _owner_id id) {
  return write_lock_slowly<true>(timeout, id, try_inner_lock(id));
}

template <bool independent>
bool TMultiLock::read_lock_slowly(unsigned int timeout, _owner_id id, bool has_inner_lock) {
  if (!has_inner_lock) inner_lock_contended(id, true);
  return acquire_read<independent>(timeout, id,
                                   [&] { enter_free(locked_read, id.reading(), sig_free); });
}

// The first write hold of no thread leaves two signals as they are.
template <bool independent>
bool TMultiLock::write_lock_slowly(unsigned int timeout, _owner_id id, bool has_inner_lock) {
  if (!has_inner_lock) inner_lock_contended(id, true);
  constexpr signal_set lowered = independent ? sig_free : sig_free | sig_sole_owner | sig_read_open;
  return acquire_write<independent>(
      timeout, id, [&] { enter_free(locked_write, id.writing(), lowered); },
      [&] {
        state = locked_write;
        add_owner(id.writing());
        reset_signal(sig_read_open);
      });
}

inline void TMultiLock::end_last_hold() noexcept {
  bool const was_locked = state == locked_read || state == locked_write;
  state = not_locked;
  set_signal(was_locked ? sig_free : 0);
}

void TMultiLock::_unlock(_owner_id id) noexcept {
  bool const has_inner_lock = try_inner_lock(id);
  if (!has_inner_lock || !remove_last_owner(id)) [[unlikely]]
    return unlock_slowly(id, has_inner_lock);
  end_last_hold();
}

void TMultiLock::unlock_slowly(_owner_id id, bool has_inner_lock) noexcept {
  if (!has_inner_lock) inner_lock_contended(id, false);
  _owner_id const removed = remove_owner(id);
  if (removed.bits == no_record) {
    inner_unlock();
    return;
  }
  if (owner_count() == 0) return end_last_hold();
  signal_set mask = all_one_owner() ? sig_sole_owner : 0;
  if (removed.writes() && state == locked_write && no_write_owner()) {
    mask |= sig_read_open;
    state = locked_read;
  }
  set_signal(mask);
}

bool TMultiLock::wait_to_upgrade(_owner_id id, unsigned int timeout, wait_history& history) {
  if (++rw_waiters > 1) {
    --rw_waiters;
    inner_unlock();
    throw EDeadLockException(GetStatusString());
  }
  bool again;
  try {
    again = wait_signal(sig_sole_owner | sig_free, id, timeout, history);
  } catch (...) {
    // A wait that the platform refused stays counted.
    if (!history.failed) --rw_waiters;
    throw;
  }
  --rw_waiters;
  return again;
}

std::string TMultiLock::GetStatusString() {
  static char const* const names[] = {"not_locked", "locked_read", "locked_write"};
  inner_lock(own_id());
  std::string text = state >= not_locked && state <= locked_write ? names[state] : "";
  for (int i = 0; i < owner_count(); ++i) {
    _owner_id const owner = owner_at(i);
    text += i == 0 ? ", " : ",";
    text += itoa(static_cast<int>(owner.thread()), 10) + (owner.writes() ? ":W" : ":R");
  }
  if (int const waiters = rw_waiters; waiters > 0)
    text += ", " + itoa(waiters, 10) + " r->w waiters";
  inner_unlock();
  return text;
}
