#include "velt/locks/TimedLock.h"

#include "velt/time/Stopwatches.h"

using velt::detail::performance_count;

TTimedLock::TTimedLock(ILock& target) noexcept
    : lock(&target), multi_lock(nullptr), multi_lock_ex(nullptr),
      last_change(performance_count()) {}
TTimedLock::TTimedLock(IMultiLock& target) noexcept
    : lock(&target), multi_lock(&target), multi_lock_ex(nullptr),
      last_change(performance_count()) {}
TTimedLock::TTimedLock(IMultiLockEx& target) noexcept
    : lock(&target), multi_lock(&target), multi_lock_ex(&target),
      last_change(performance_count()) {}

TTimedLock::TTimedLock(TTimedLock const& other) noexcept { *this = other; }

TTimedLock& TTimedLock::operator=(TTimedLock const& other) noexcept {
  lock = other.lock;
  multi_lock = other.multi_lock;
  multi_lock_ex = other.multi_lock_ex;
  hold_count = other.hold_count.load();
  last_change = other.last_change;
  busy_ticks = other.busy_ticks;
  idle_ticks = other.idle_ticks;
  return *this;
}

bool TTimedLock::IsLocked() const noexcept { return hold_count != 0; }

__int64 TTimedLock::get_elapsed_ticks() const noexcept {
  return idle_ticks + busy_ticks + (performance_count() - last_change);
}

double TTimedLock::get_elapsed() const noexcept {
  return static_cast<double>(get_elapsed_ticks()) / _pcounter_t::frequency;
}

double TTimedLock::get_busy() const noexcept {
  __int64 const running = performance_count() - last_change;
  __int64 const busy = busy_ticks + (IsLocked() ? running : 0);
  return static_cast<double>(busy) / static_cast<double>(idle_ticks + busy_ticks + running);
}

void TTimedLock::opened() noexcept {
  if (++hold_count != 1) return;
  __int64 const now = performance_count();
  idle_ticks += now - last_change;
  last_change = now;
}

bool TTimedLock::opened_if(bool success) noexcept {
  if (success) opened();
  return success;
}

void TTimedLock::closed() noexcept {
  if (hold_count-- != 1) return;
  __int64 const now = performance_count();
  busy_ticks += now - last_change;
  last_change = now;
}

bool TTimedLock::Lock(unsigned int timeout) { return opened_if(lock->Lock(timeout)); }
void TTimedLock::Lock() {
  lock->Lock();
  opened();
}
void TTimedLock::Unlock() {
  lock->Unlock();
  closed();
}

bool TTimedLock::ReadLock(unsigned int timeout) { return opened_if(multi_lock->ReadLock(timeout)); }
void TTimedLock::ReadLock() {
  multi_lock->ReadLock();
  opened();
}
bool TTimedLock::WriteLock(unsigned int timeout) {
  return opened_if(multi_lock->WriteLock(timeout));
}
void TTimedLock::WriteLock() {
  multi_lock->WriteLock();
  opened();
}

bool TTimedLock::ReadLockThreadIndependent(unsigned int timeout) {
  return opened_if(multi_lock_ex->ReadLockThreadIndependent(timeout));
}
void TTimedLock::ReadLockThreadIndependent() {
  multi_lock_ex->ReadLockThreadIndependent();
  opened();
}
bool TTimedLock::WriteLockThreadIndependent(unsigned int timeout) {
  return opened_if(multi_lock_ex->WriteLockThreadIndependent(timeout));
}
void TTimedLock::WriteLockThreadIndependent() {
  multi_lock_ex->WriteLockThreadIndependent();
  opened();
}
void TTimedLock::UnlockThreadIndependent() {
  multi_lock_ex->UnlockThreadIndependent();
  closed();
}
