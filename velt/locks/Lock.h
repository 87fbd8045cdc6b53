// The lock interfaces, and the guards: TLock holds a lock for a scope, TReadLock
// a read/write lock for reading. A function
// that needs a lock takes the narrowest interface that will do, so that its
// caller chooses the kind: a critical section, a kernel object that other
// processes share, or a read/write lock.
#pragma once

#include "velt/base/Export.h"

// In all interfaces a timeout is in milliseconds, 0 asks without waiting, and
// 0xFFFFFFFF means no limit. The operations with a timeout return true when the
// lock was obtained and false when the time ran out; those without return when
// the lock is held. Each acquisition needs one Unlock(). Unless a lock says
// otherwise, waits are alertable, so that any of them can throw EThreadInterrupt,
// and a failed platform call throws ESystemException.
//
// No lock is owned or deleted through an interface: the destructors are protected
// and not virtual. Those of the locks are virtual, for classes derived from them.
class ILock {
public:
  // Obtain the lock, and release it.
  [[nodiscard]] virtual bool Lock(unsigned int timeout) = 0;
  virtual void Lock() = 0;
  virtual void Unlock() = 0;

protected:
  ~ILock() = default;
};

// Many readers or one writer. Lock() is the plain lock of ILock, and Unlock()
// ends either kind of hold.
class IMultiLock : public ILock {
public:
  // Obtain the lock beside other readers, or alone.
  [[nodiscard]] virtual bool ReadLock(unsigned int timeout) = 0;
  virtual void ReadLock() = 0;
  [[nodiscard]] virtual bool WriteLock(unsigned int timeout) = 0;
  virtual void WriteLock() = 0;

protected:
  ~IMultiLock() = default;
};

// Adds holds that belong to no thread: one thread may take them and another
// may end them, by UnlockThreadIndependent().
class IMultiLockEx : public IMultiLock {
public:
  // As in IMultiLock, for a hold that any thread may end.
  [[nodiscard]] virtual bool ReadLockThreadIndependent(unsigned int timeout) = 0;
  virtual void ReadLockThreadIndependent() = 0;
  [[nodiscard]] virtual bool WriteLockThreadIndependent(unsigned int timeout) = 0;
  virtual void WriteLockThreadIndependent() = 0;
  virtual void UnlockThreadIndependent() = 0;

protected:
  ~IMultiLockEx() = default;
};

namespace velt::detail {

// Throws ESystemException with the platform's status of a wait that ran out of
// time, 258.
[[noreturn]] VELT_API void throw_wait_timeout();

}  // namespace velt::detail

// Holds a lock from its making to the end of the scope:
//
//   TLock guard(list_lock);
//
// One shot: Unlock() and a timed Lock() that fails leave the guard empty for
// good, and locking an empty guard dereferences null. The guard does not own
// its lock, and it belongs to one thread. It also takes a reference to const, so
// that const functions can lock; the lock object itself must not be const.
class [[nodiscard]] TLock {
public:
  // Wait without limit. A pointer must not be null.
  TLock(ILock& lock) : TLock(&lock) {}
  TLock(ILock const& lock) : TLock(&lock) {}
  TLock(ILock const* lock) : TLock(const_cast<ILock*>(lock)) {}
  TLock(ILock* lock) : held(lock) { Lock(); }

  // Throw ESystemException with code 258 when the time runs out.
  TLock(ILock& lock, unsigned int timeout) : TLock(&lock, timeout) {}
  TLock(ILock const& lock, unsigned int timeout) : TLock(&lock, timeout) {}
  TLock(ILock const* lock, unsigned int timeout) : TLock(const_cast<ILock*>(lock), timeout) {}
  TLock(ILock* lock, unsigned int timeout) : held(lock) {
    if (!Lock(timeout)) velt::detail::throw_wait_timeout();
  }

  // A copy would be a second guard of one hold.
  TLock(TLock const&) = delete;

  // Copies the pointer and nothing else: this guard's lock stays locked, and both
  // guards release the other's.
  TLock& operator=(TLock const&) = default;

  // An exception from the lock's Unlock() passes out, with the guard still holding.
  ~TLock() noexcept(false) { Unlock(); }

  // A further acquisition of the lock, which the guard will not release.
  void Lock() { held->Lock(); }

  // The same with a limit; false leaves the guard empty.
  [[nodiscard]] bool Lock(unsigned int timeout) {
    if (held->Lock(timeout)) return true;
    held = nullptr;
    return false;
  }

  // Releases the lock before the scope ends; does nothing on an empty guard.
  void Unlock() {
    if (!held) return;
    held->Unlock();
    held = nullptr;
  }

private:
  ILock* held;
};

// Holds a read/write lock for reading until the end of the scope. TLock holds it
// for writing, since the plain lock of a read/write lock is a write lock. The two
// nest in any order:
//
//   TReadLock reading(table_lock);
//   if (!table.contains(name)) {
//     TLock writing(table_lock);  // an upgrade, if the lock offers that
//     table.insert(name);
//   }
//
// Unlock() ends the lock's newest hold of this thread, so the guards of one lock
// must end in the reverse order of their making. The guard does not own its
// lock, and belongs to one thread.
class [[nodiscard]] TReadLock {
public:
  // Waits without limit.
  explicit TReadLock(IMultiLock const& lock) : held(const_cast<IMultiLock*>(&lock)) {
    held->ReadLock();
  }

  // Throws ESystemException with code 258 when the time runs out.
  TReadLock(IMultiLock const& lock, unsigned int timeout) : held(const_cast<IMultiLock*>(&lock)) {
    if (!held->ReadLock(timeout)) velt::detail::throw_wait_timeout();
  }

  TReadLock(TReadLock const&) = delete;
  TReadLock& operator=(TReadLock const&) = delete;

  // As that of TLock.
  ~TReadLock() noexcept(false) { Unlock(); }

  // Ends the hold before the scope ends; does nothing the second time.
  void Unlock() {
    if (!held) return;
    held->Unlock();
    held = nullptr;
  }

private:
  IMultiLock* held;
};
