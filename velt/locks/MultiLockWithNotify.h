// TMultiLockWithNotify: a TMultiLock that tells a derived class when it goes
// from free to held and back, for work that belongs to the first and last
// holder.
#pragma once

#include "velt/locks/MultiLock.h"

// The notifications run on the thread that takes or ends the hold, with that
// hold in place and no other lock held:
//
//   OnReadLock              the first read hold of a free lock; everybody else
//                           still waits, and readers get in when it returns
//   OnWriteLock             the first write hold of a free lock
//   OnWriteAfterReadLock    an upgrade
//   OnWriteAfterReadUnlock  before the end of a write hold that was an upgrade
//   OnReadUnlock            before the end of the only hold of a lock that is
//                           held for reading; readers may still come in, for
//                           whom no OnReadLock runs
//   OnWriteUnlock           before the end of the only hold of a lock that is
//                           held for writing
//
// Everything else is silent. A notification may take further holds on the lock,
// but for an upgrade in OnReadUnlock, where others may read.
//
// What OnReadLock or OnWriteLock throws takes the hold back and goes on to the
// caller. What OnWriteAfterReadLock throws is swallowed: WriteLock returns as if
// it had succeeded, while only the read holds are left. What an unlock
// notification throws goes on to the caller after the hold has ended.
class VELT_API TMultiLockWithNotify : public TMultiLock {
public:
  TMultiLockWithNotify() noexcept = default;
  // As that of TMultiLock.
  TMultiLockWithNotify& operator=(TMultiLockWithNotify const&) noexcept = default;

  // Do nothing here.
  virtual void OnWriteLock();
  virtual void OnReadLock();
  virtual void OnWriteUnlock();
  virtual void OnReadUnlock();
  virtual void OnWriteAfterReadLock();
  virtual void OnWriteAfterReadUnlock();

  // The operations of TMultiLock, without notifications. They mix with the
  // others: each fires what it fires itself, whatever took the hold.
  virtual void ReadLockNoNotify();
  [[nodiscard]] virtual bool ReadLockNoNotify(unsigned int timeout);
  virtual void WriteLockNoNotify();
  [[nodiscard]] virtual bool WriteLockNoNotify(unsigned int timeout);
  virtual void UnlockNoNotify();
  virtual void ReadLockThreadIndependentNoNotify();
  [[nodiscard]] virtual bool ReadLockThreadIndependentNoNotify(unsigned int timeout);
  virtual void WriteLockThreadIndependentNoNotify();
  [[nodiscard]] virtual bool WriteLockThreadIndependentNoNotify(unsigned int timeout);
  virtual void UnlockThreadIndependentNoNotify();

  [[nodiscard]] bool ReadLock(unsigned int timeout) override;
  void ReadLock() override;
  [[nodiscard]] bool WriteLock(unsigned int timeout) override;
  void WriteLock() override;
  void Unlock() override;
  [[nodiscard]] bool ReadLockThreadIndependent(unsigned int timeout) override;
  void ReadLockThreadIndependent() override;
  [[nodiscard]] bool WriteLockThreadIndependent(unsigned int timeout) override;
  void WriteLockThreadIndependent() override;
  void UnlockThreadIndependent() override;

protected:
  bool _read_lock_notify(unsigned int timeout, _owner_id id);
  bool _read_lock_notify_independent(unsigned int timeout, _owner_id id);
  bool _write_lock_notify(unsigned int timeout, _owner_id id);
  bool _write_lock_notify_independent(unsigned int timeout, _owner_id id);
  void _unlock_notify(_owner_id id);

private:
  enum class last_hold { no, only_one, upgrade };

  TMultiLockWithNotify(TMultiLockWithNotify const&) = delete;

  void enter_first_reader(_owner_id id);
  void enter_first_writer(_owner_id id);
  void enter_upgrade(_owner_id id);
  last_hold kind_of_last_hold(_owner_id id) const noexcept;
  void notify_of_unlock(int state_before, last_hold kind);
};
