#include "velt/locks/MultiLockWithNotify.h"

#include "velt/locks/MultiLockProtocolInternal.h"

void TMultiLockWithNotify::OnWriteLock() {}
void TMultiLockWithNotify::OnReadLock() {}
void TMultiLockWithNotify::OnWriteUnlock() {}
void TMultiLockWithNotify::OnReadUnlock() {}
void TMultiLockWithNotify::OnWriteAfterReadLock() {}
void TMultiLockWithNotify::OnWriteAfterReadUnlock() {}

void TMultiLockWithNotify::ReadLockNoNotify() { _read_lock(no_limit, own_id()); }
bool TMultiLockWithNotify::ReadLockNoNotify(unsigned int timeout) {
  return _read_lock(timeout, own_id());
}
void TMultiLockWithNotify::WriteLockNoNotify() { _write_lock(no_limit, own_id()); }
bool TMultiLockWithNotify::WriteLockNoNotify(unsigned int timeout) {
  return _write_lock(timeout, own_id());
}
void TMultiLockWithNotify::UnlockNoNotify() { _unlock(own_id()); }
void TMultiLockWithNotify::ReadLockThreadIndependentNoNotify() {
  _read_lock_independent(no_limit, no_thread());
}
bool TMultiLockWithNotify::ReadLockThreadIndependentNoNotify(unsigned int timeout) {
  return _read_lock_independent(timeout, no_thread());
}
void TMultiLockWithNotify::WriteLockThreadIndependentNoNotify() {
  _write_lock_independent(no_limit, no_thread());
}
bool TMultiLockWithNotify::WriteLockThreadIndependentNoNotify(unsigned int timeout) {
  return _write_lock_independent(timeout, no_thread());
}
void TMultiLockWithNotify::UnlockThreadIndependentNoNotify() { _unlock(no_thread()); }

bool TMultiLockWithNotify::ReadLock(unsigned int timeout) {
  return _read_lock_notify(timeout, own_id());
}
void TMultiLockWithNotify::ReadLock() { _read_lock_notify(no_limit, own_id()); }
bool TMultiLockWithNotify::WriteLock(unsigned int timeout) {
  return _write_lock_notify(timeout, own_id());
}
void TMultiLockWithNotify::WriteLock() { _write_lock_notify(no_limit, own_id()); }
void TMultiLockWithNotify::Unlock() { _unlock_notify(own_id()); }
bool TMultiLockWithNotify::ReadLockThreadIndependent(unsigned int timeout) {
  return _read_lock_notify_independent(timeout, no_thread());
}
void TMultiLockWithNotify::ReadLockThreadIndependent() {
  _read_lock_notify_independent(no_limit, no_thread());
}
bool TMultiLockWithNotify::WriteLockThreadIndependent(unsigned int timeout) {
  return _write_lock_notify_independent(timeout, no_thread());
}
void TMultiLockWithNotify::WriteLockThreadIndependent() {
  _write_lock_notify_independent(no_limit, no_thread());
}
void TMultiLockWithNotify::UnlockThreadIndependent() { _unlock_notify(no_thread()); }

bool TMultiLockWithNotify::_read_lock_notify(unsigned int timeout, _owner_id id) {
  inner_lock(id);
  return acquire_read<false>(timeout, id, [this, id] { enter_first_reader(id); });
}

bool TMultiLockWithNotify::_read_lock_notify_independent(unsigned int timeout, _owner_id id) {
  inner_lock(id);
  return acquire_read<true>(timeout, id, [this, id] { enter_first_reader(id); });
}

bool TMultiLockWithNotify::_write_lock_notify(unsigned int timeout, _owner_id id) {
  inner_lock(id);
  return acquire_write<false>(
      timeout, id, [this, id] { enter_first_writer(id); }, [this, id] { enter_upgrade(id); });
}

bool TMultiLockWithNotify::_write_lock_notify_independent(unsigned int timeout, _owner_id id) {
  inner_lock(id);
  return acquire_write<true>(timeout, id, [this, id] { enter_first_writer(id); }, [] {});
}

// To everybody else the lock is held for writing until the notification is done.
void TMultiLockWithNotify::enter_first_reader(_owner_id id) {
  add_owner(id.reading());
  state = locked_write;
  reset_signal(sig_read_open | sig_free);
  try {
    OnReadLock();
    inner_lock(id);
  } catch (...) {
    _unlock(id);
    throw;
  }
  state = locked_read;
  set_signal(sig_read_open);
}

void TMultiLockWithNotify::enter_first_writer(_owner_id id) {
  state = locked_write;
  add_owner(id.writing());
  reset_signal(sig_free);
  try {
    OnWriteLock();
  } catch (...) {
    _unlock(id);
    throw;
  }
}

void TMultiLockWithNotify::enter_upgrade(_owner_id id) {
  state = locked_write;
  add_owner(id.writing());
  reset_signal(sig_read_open);
  try {
    OnWriteAfterReadLock();
  } catch (...) {
    _unlock(id);
  }
}

TMultiLockWithNotify::last_hold TMultiLockWithNotify::kind_of_last_hold(
    _owner_id id) const noexcept {
  int const last = owner_count() - 1;
  if (last < 0 || !owner_at(last).same_owner(id)) return last_hold::no;
  if (last == 0) return last_hold::only_one;
  if (!owner_at(last).writes()) return last_hold::no;
  for (int i = 0; i < last; ++i)
    if (owner_at(i).writes()) return last_hold::no;
  return last_hold::upgrade;
}

void TMultiLockWithNotify::notify_of_unlock(int state_before, last_hold kind) {
  if (kind == last_hold::only_one && state_before == locked_read) OnReadUnlock();
  if (kind == last_hold::only_one && state_before == locked_write) OnWriteUnlock();
  if (kind == last_hold::upgrade && state_before == locked_write) OnWriteAfterReadUnlock();
}

void TMultiLockWithNotify::_unlock_notify(_owner_id id) {
  inner_lock_to_release(id);
  int const state_before = state;
  last_hold const kind = kind_of_last_hold(id);
  inner_unlock();
  try {
    notify_of_unlock(state_before, kind);
  } catch (...) {
    _unlock(id);
    throw;
  }
  _unlock(id);
}
