// TMultiLock: the library's read/write lock. Beyond what std::shared_mutex and
// the platform's slim lock do, it knows who holds it:
//
//   - one thread may mix holds as it likes: read in read, write in write, read
//     in write, and the upgrade from read to write; its own holds never block it;
//   - two readers that both want to upgrade would wait for each other for ever:
//     the second gets an exception instead;
//   - a hold may belong to no thread: one thread takes it, another ends it;
//   - every wait can have a limit and runs queued calls;
//   - GetStatusString() tells who holds what.
//
// It is not fair and prefers neither side: new readers join others at once,
// whoever waits. docs/locks.md has the table of which requests are granted, wait
// or fail, and compares its cost with other locks.
#pragma once

#include <atomic>
#include <string>

#include "velt/base/Export.h"
#include "velt/locks/Lock.h"
#include "velt/locks/MultiLockLayers.h"

// Any thread may call any operation. Without contention, and with at most two
// holds, nothing is allocated and no kernel object made.
//
// Time limits are milliseconds, 0 asks without waiting, 0xFFFFFFFF means no
// limit. A limit bounds each single wait: an operation that is woken and must
// wait again gets the whole time again.
//
// Any acquisition may throw EDeadLockException for the second thread that wants
// to upgrade, whatever its limit (it keeps its read hold); ESystemException if the
// wait fails; std::bad_alloc; and whatever a queued call throws. Releases throw
// nothing and run no queued calls, so that a guard can end its hold while an
// exception unwinds the stack.
//
// The lock knows a thread by its id, which the platform gives out again. A thread
// that ends without releasing leaves its holds to the next thread with its id: the
// lock takes them for that thread's own and grants its requests accordingly.
//
// Do not destroy a lock that is held or waited for. A static lock of a DLL may be
// destroyed at the end of the process all the same.
class VELT_API TMultiLock : protected _ml_free_signal_event, public virtual IMultiLockEx {
public:
  TMultiLock() noexcept = default;
  virtual ~TMultiLock() = default;

  // Copies every field as it stands, also the pointer to the records and the
  // handles of the events. Afterwards both objects are the same lock; use and
  // destroy only one of them.
  TMultiLock& operator=(TMultiLock const& other) noexcept;

  // A plain lock is a write lock.
  [[nodiscard]] bool Lock(unsigned int timeout) override;
  void Lock() override;

  // Ends the thread's newest hold, of either kind. Does nothing if it has none.
  void Unlock() override;

  // Holds of the calling thread.
  [[nodiscard]] bool ReadLock(unsigned int timeout) override;
  void ReadLock() override;
  [[nodiscard]] bool WriteLock(unsigned int timeout) override;
  void WriteLock() override;

  // Holds of no thread. All of them count as one owner, but without recursion:
  // a write hold waits for every other hold to end, a read hold for every write
  // hold.
  [[nodiscard]] bool ReadLockThreadIndependent(unsigned int timeout) override;
  void ReadLockThreadIndependent() override;
  [[nodiscard]] bool WriteLockThreadIndependent(unsigned int timeout) override;
  void WriteLockThreadIndependent() override;
  // Ends the newest hold of no thread; does nothing if there is none.
  void UnlockThreadIndependent() override;

  // The state, the holds from the oldest to the newest as "thread:R" or
  // "thread:W", and the number of threads that wait to upgrade:
  // "locked_read, 48:R,52:R, 1 r->w waiters". A hold of no thread has the id 0.
  std::string GetStatusString();

protected:
  // The values of `state`, which is guarded by the inner lock.
  enum state_value : int { not_locked = 0, locked_read = 1, locked_write = 2 };

  // The operations for a given owner. A derived class calls them in its own operations.
  bool _read_lock(unsigned int timeout, _owner_id id);
  bool _write_lock(unsigned int timeout, _owner_id id);
  bool _read_lock_independent(unsigned int timeout, _owner_id id);
  bool _write_lock_independent(unsigned int timeout, _owner_id id);
  void _unlock(_owner_id id) noexcept;

  // The loops of all acquisitions, called under the inner lock. The parameters are the
  // branches that a derived class changes; each is called under the inner lock and
  // releases it.
  template <bool independent, class FirstReader>
  bool acquire_read(unsigned int timeout, _owner_id id, FirstReader const& first_reader);
  template <bool independent, class FirstWriter, class Upgrader>
  bool acquire_write(unsigned int timeout, _owner_id id, FirstWriter const& first_writer,
                     Upgrader const& upgrader);

  // The calling thread, no thread, and the time-out that means no limit.
  static _owner_id own_id() noexcept;
  static constexpr _owner_id no_thread() noexcept { return {0}; }
  static constexpr unsigned int no_limit = 0xFFFFFFFF;

private:
  TMultiLock(TMultiLock const&) = delete;

  // The first hold of a free lock and the end of the only one are done in place. All else
  // goes through these three, because the registers that they save would cost the others
  // time.
  template <bool independent>
  [[gnu::noinline]] bool read_lock_slowly(unsigned int timeout, _owner_id id, bool has_inner_lock);
  template <bool independent>
  [[gnu::noinline]] bool write_lock_slowly(unsigned int timeout, _owner_id id, bool has_inner_lock);
  [[gnu::noinline]] void unlock_slowly(_owner_id id, bool has_inner_lock) noexcept;

  void enter_free(state_value entered, _owner_id record, signal_set lowered) noexcept;
  void end_last_hold() noexcept;
  bool wait_to_upgrade(_owner_id id, unsigned int timeout, wait_history& history);

  // Threads that wait to upgrade. Raised under the inner lock and lowered
  // without it.
  std::atomic<int> rw_waiters = 0;
};
