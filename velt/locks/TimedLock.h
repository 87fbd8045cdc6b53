// TTimedLock: an adaptor that measures how busy a lock is. It takes the place of
// any of the lock interfaces, forwards to the lock that it was made of, and sums up
// the time during which at least one hold was open through it, and the time during
// which none was.
#pragma once

#include <atomic>
#include <cstdint>  // __int64

#include "velt/base/Export.h"
#include "velt/locks/Lock.h"

// The wrapped lock is not owned. Operations that it does not have, such as
// ReadLock over a plain ILock, dereference null.
//
// The totals have no lock of their own: two threads that open the first hold and
// end the last one at the same moment can lose each other's update, so the
// figures are good for statistics and not for accounts. An Unlock() without a hold
// is counted too: the count of holds falls to -1, IsLocked() answers true, and the
// figures are wrong from then on.
class VELT_API TTimedLock : public IMultiLockEx {
public:
  // Measures this lock, which must outlive the adaptor.
  TTimedLock(ILock& target) noexcept;
  TTimedLock(IMultiLock& target) noexcept;
  TTimedLock(IMultiLockEx& target) noexcept;
  // Copy the totals along.
  TTimedLock(TTimedLock const& other) noexcept;
  TTimedLock& operator=(TTimedLock const& other) noexcept;
  virtual ~TTimedLock() = default;

  // Is a hold open through this adaptor?
  bool IsLocked() const noexcept;
  // The time since construction: ticks of the performance counter, seconds.
  __int64 get_elapsed_ticks() const noexcept;
  double get_elapsed() const noexcept;
  // The share of that time that was busy, from 0 to 1; NaN in the very tick of
  // the construction.
  double get_busy() const noexcept;

  // As the target's, measured.
  [[nodiscard]] bool Lock(unsigned int timeout) override;
  void Lock() override;
  void Unlock() override;
  [[nodiscard]] bool ReadLock(unsigned int timeout) override;
  void ReadLock() override;
  [[nodiscard]] bool WriteLock(unsigned int timeout) override;
  void WriteLock() override;
  [[nodiscard]] bool ReadLockThreadIndependent(unsigned int timeout) override;
  void ReadLockThreadIndependent() override;
  [[nodiscard]] bool WriteLockThreadIndependent(unsigned int timeout) override;
  void WriteLockThreadIndependent() override;
  void UnlockThreadIndependent() override;

private:
  void opened() noexcept;
  bool opened_if(bool success) noexcept;
  void closed() noexcept;

  ILock* lock;
  IMultiLock* multi_lock;
  IMultiLockEx* multi_lock_ex;
  std::atomic<int> hold_count = 0;
  __int64 last_change;
  __int64 busy_ticks = 0;
  __int64 idle_ticks = 0;
};
