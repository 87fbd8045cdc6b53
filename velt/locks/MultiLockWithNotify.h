// TMultiLockWithNotify: a TMultiLock that tells a derived class when it goes
// from free to held and back, for work that belongs to the writers.
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
// No other operation notifies. A notification may take further holds on the lock,
// except an upgrade in OnReadUnlock, where others may read.
//
// The write notifications are exact: everybody else waits from the first of a pair
// to the second. The read pair is a hint: a reader that comes in during
// OnReadUnlock gets no OnReadLock and holds the lock after it.
//
// An exception from OnReadLock or OnWriteLock takes the hold back and reaches the
// caller. One from OnWriteAfterReadLock is swallowed, an interruption of a wait in
// it included: WriteLock returns as if it had succeeded, while only the read holds
// are left. One from an unlock notification reaches the caller after the hold has
// ended.
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

  // The operations of TMultiLock, without notifications. They may be mixed with
  // the others: an Unlock() notifies whichever form took the hold.
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

  // Holds of the calling thread.
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
  // As TMultiLock's operations for a given owner, with the notifications.
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
