// The layers under TMultiLock, one class each; every class stands on the one
// before:
//
//   _ml_common                   who holds: a thread, or no thread
//   _ml_interlocked_inner_lock   one word that guards all the other fields
//   _ml_full_owners_list         a record for each hold
//   _ml_free_signal_event        the signals that waiting threads wait for
//
// TMultiLock adds the states and the protocol. Clients use nothing of this.
#pragma once

#include <atomic>

#include "velt/base/Export.h"

// A field in a class that is copied field by field. Threads without the inner lock
// may read it, and add to it; only those with the inner lock assign to it.
template <class T>
class _ml_shared {
public:
  _ml_shared(T initial) noexcept : value(initial) {}
  _ml_shared(_ml_shared const& other) noexcept : value(T(other)) {}
  _ml_shared& operator=(_ml_shared const& other) noexcept { return *this = T(other); }
  _ml_shared& operator=(T changed) noexcept {
    value.store(changed, std::memory_order_relaxed);
    return *this;
  }
  operator T() const noexcept { return value.load(std::memory_order_relaxed); }
  void operator+=(T more) noexcept { value += more; }
  void operator-=(T less) noexcept { value -= less; }

private:
  std::atomic<T> value;
};

class VELT_API _ml_common {
public:
  // The owner of a hold: the low 31 bits of the thread's id, or 0 for no thread.
  // The highest bit is set in the record of a write hold and ignored when owners
  // are compared.
  struct _owner_id {
    static constexpr unsigned int write_bit = 0x80000000;
    static constexpr unsigned int thread_mask = ~write_bit;

    unsigned int bits;

    unsigned int thread() const noexcept { return bits & thread_mask; }
    bool writes() const noexcept { return (bits & write_bit) != 0; }
    bool same_owner(_owner_id other) const noexcept { return thread() == other.thread(); }
    _owner_id reading() const noexcept { return {thread()}; }
    _owner_id writing() const noexcept { return {thread() | write_bit}; }
  };
};

class VELT_API _ml_interlocked_inner_lock : public _ml_common {
protected:
  // Held for a few steps over the fields, never across a wait or a call into
  // other code. Not recursive. A contender spins for some microseconds, then
  // sleeps alertably between tries: queued calls run and can throw.
  void inner_lock(_owner_id id) {
    if (!try_inner_lock(id)) [[unlikely]]
      inner_lock_contended(id, true);
  }
  // Like inner_lock(), but not alertable: releases run in destructors during
  // unwinding and must not throw.
  void inner_lock_to_release(_owner_id id) noexcept {
    if (!try_inner_lock(id)) [[unlikely]]
      inner_lock_contended(id, false);
  }
  // One try. If there is no room on the stack for what is done under the inner lock,
  // it overflows here, where nothing is held yet.
  bool try_inner_lock(_owner_id id) noexcept {
    touch_stack();
    return try_word(id);
  }
  // After a try that failed.
  void inner_lock_contended(_owner_id id, bool alertable);
  void inner_unlock() noexcept { word.store(free_word, std::memory_order_release); }

private:
  static constexpr unsigned int free_word = 0xFFFFFFFF;

  // Page by page, as the guard must be met.
  static void touch_stack() noexcept {
    auto const frame = static_cast<char const volatile*>(__builtin_frame_address(0));
    (void)frame[-2048];
    (void)frame[-2048 - 4096];
  }

  bool is_free() const noexcept { return word.load(std::memory_order_relaxed) == free_word; }
  bool try_word(_owner_id id) noexcept {
    unsigned int expected = free_word;
    return word.compare_exchange_strong(expected, id.bits, std::memory_order_acquire);
  }

  // The holder's id, for whoever reads a dump.
  std::atomic<unsigned int> word = free_word;

public:
  _ml_interlocked_inner_lock() noexcept = default;
  _ml_interlocked_inner_lock(_ml_interlocked_inner_lock const&) = delete;
  _ml_interlocked_inner_lock& operator=(_ml_interlocked_inner_lock const& other) noexcept {
    word.store(other.word.load());
    return *this;
  }
};

// All operations require the inner lock.
class VELT_API _ml_full_owners_list : public _ml_interlocked_inner_lock {
public:
  // Copies the fields as they stand, the pointer to the records among them.
  _ml_full_owners_list& operator=(_ml_full_owners_list const&) noexcept = default;

protected:
  enum class share { none, some, all };

  _ml_full_owners_list() noexcept = default;
  ~_ml_full_owners_list();

  // Appends; throws std::bad_alloc ("bad allocation").
  void add_owner(_owner_id record) {
    if (owners_count == owners_capacity) [[unlikely]]
      grow();
    owners[owners_count++] = record;
  }
  // The same for an empty list.
  void add_first_owner(_owner_id record) noexcept {
    owners[0] = record;
    owners_count = 1;
  }
  // If the list is one record of this owner: removes it. False: nothing is done.
  bool remove_last_owner(_owner_id id) noexcept {
    if (owners_count != 1 || !owners[0].same_owner(id)) return false;
    owners_count = 0;
    return true;
  }

  // Removes the newest record of the owner, for reading or writing, and returns
  // it; no_record if there is none. Mostly it is the newest of all.
  _owner_id remove_owner(_owner_id id) noexcept {
    if (owners_count != 0 && owners[owners_count - 1].same_owner(id)) [[likely]]
      return owners[--owners_count];
    return remove_older_owner(id);
  }
  static constexpr unsigned int no_record = 0xFFFFFFFF;

  // How many of the records are the owner's; none if the list is empty.
  share owner_share(_owner_id id) const noexcept {
    int own = 0;
    for (int i = 0; i < owners_count; ++i) own += owners[i].same_owner(id);
    return own == 0 ? share::none : own == owners_count ? share::all : share::some;
  }

  // These three are false for an empty list.
  bool is_only_owner(_owner_id id) const noexcept { return owner_share(id) == share::all; }
  bool all_one_owner() const noexcept { return owners_count != 0 && is_only_owner(owners[0]); }
  bool no_write_owner() const noexcept {
    unsigned int bits = 0;
    for (int i = 0; i < owners_count; ++i) bits |= owners[i].bits;
    return owners_count != 0 && !_owner_id{bits}.writes();
  }

  int owner_count() const noexcept { return owners_count; }
  _owner_id owner_at(int index) const noexcept { return owners[index]; }

  // What the holds amount to: a TMultiLock::state_value. It stands here so that one line
  // of the cache can have all that a hold writes.
  int state = 0;

private:
  static constexpr int inline_records = 2;

  void grow();
  _owner_id remove_older_owner(_owner_id id) noexcept;

  // In the order of acquisition, oldest first. The lock itself has room for two,
  // enough for an upgrade or a read inside a write.
  _owner_id* owners = inline_storage;
  _owner_id inline_storage[inline_records];
  int owners_count = 0;
  int owners_capacity = inline_records;
};

class VELT_API _ml_free_signal_event : public _ml_full_owners_list {
public:
  _ml_free_signal_event& operator=(_ml_free_signal_event const&) noexcept = default;

protected:
  using signal_set = unsigned int;
  static constexpr signal_set sig_free = 2;        // nobody holds; one waiter may try
  static constexpr signal_set sig_sole_owner = 4;  // one owner remains; it may upgrade
  static constexpr signal_set sig_read_open = 8;   // the writer has left; readers may enter

  _ml_free_signal_event() noexcept = default;
  // Takes the inner lock and keeps it, unless a thread that the end of the process
  // stopped has it.
  ~_ml_free_signal_event();

  // Called under the inner lock, which they release. They call the platform only
  // for a signal that changes and that somebody waits for.
  void set_signal(signal_set mask) noexcept {
    if (waiting != 0) [[unlikely]]
      return set_awaited_signal(mask);
    signals = signals | mask;
    inner_unlock();
  }
  void reset_signal(signal_set mask) noexcept {
    if (waiting != 0) [[unlikely]]
      return reset_awaited_signal(mask);
    signals = signals & ~mask;
    inner_unlock();
  }
  // The first of them, but the inner lock stays taken.
  void raise(signal_set mask) noexcept;

  // What one operation knows of its waits so far.
  struct wait_history {
    int spins = 0;              // since the last wait
    bool failed = false;        // the platform refused the last wait
    bool took_wake_up = false;  // the last wait ended by sig_free
  };

  // Called under the inner lock and releases it, except when the timer cannot be
  // set. Spins at first, in several calls for some ten microseconds together. Then it waits
  // alertably until one of the signals is up; sig_sole_owner counts only if `id` is that
  // owner. True: examine the state again. False: the time ran out. A timeout of 0
  // asks without waiting, 0xFFFFFFFF means no limit. Throws ESystemException if the
  // wait fails and records that in the history, since a queued call may throw the
  // same type.
  bool wait_signal(signal_set mask, _owner_id id, unsigned int timeout, wait_history& history);

  // Takes the inner lock after a wait that returned true. If a queued call throws
  // out of it, the wake-up that the wait consumed passes to another waiter.
  void inner_lock_after_wait(_owner_id id, wait_history const& history);

private:
  using waiter_counts = unsigned long long;
  struct event {
    signal_set signal;
    bool manual;
    void* _ml_free_signal_event::*handle;
    waiter_counts one_waiter;
  };
  // In order of priority: a wait reports the first that is signalled.
  static event const events[3];
  class counted_wait;

  bool is_awaited(event const& each) const noexcept;
  void* event_in_line(event const& each) noexcept;
  void set_awaited_signal(signal_set mask) noexcept;
  void reset_awaited_signal(signal_set mask) noexcept;
  void spin_for(signal_set mask, wait_history& history) const noexcept;

  // The signals that are up: the truth, which the events follow while somebody waits
  // for them. Changed under the inner lock.
  _ml_shared<signal_set> signals = sig_free;
  // The events that were set last, and not reset. That of sig_free also leaves this
  // set when the thread that it woke is back.
  signal_set shown = 0;
  // How many threads wait for each signal. Raised under the inner lock and lowered
  // without it.
  _ml_shared<waiter_counts> waiting = 0;
  // Those of sig_free since the last that was sent.
  unsigned int saved_wake_ups = 0;
  // Null until somebody waits for the signal. Behind the fields that each hold uses.
  void* ev_read_open = nullptr;
  void* ev_sole_owner = nullptr;
  void* ev_free = nullptr;
};
