// The layers under TMultiLock, one class each, every one standing on the one
// before:
//
//   _ml_common                   who holds: a thread, or no thread
//   _ml_interlocked_inner_lock   one word that guards all the other fields
//   _ml_full_owners_list         a record for each hold
//   _ml_free_signal_event        the signals that waiting threads wait for
//
// TMultiLock adds the states and the protocol. Nothing here is for clients.
#pragma once

#include <atomic>

#include "velt/base/Export.h"

class VELT_API _ml_common {
public:
  // A hold, or the one who asks for it: the low 31 bits of the thread's id, or 0
  // for no thread; the highest bit is set in the record of a write hold. Ids
  // compare without that bit.
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
  // other code. Not recursive. Who finds it taken tries again for some
  // microseconds, then between alertable sleeps, so that queued calls run, and
  // can throw, in it.
  void inner_lock(_owner_id id) {
    touch_stack();
    if (!try_inner_lock(id)) [[unlikely]]
      inner_lock_contended(id, true);
  }
  // The same for the end of a hold, which has to succeed, in a destructor amid the
  // unwinding of an exception too: queued calls are left to the thread's next wait.
  void inner_lock_to_release(_owner_id id) noexcept {
    touch_stack();
    if (!try_inner_lock(id)) [[unlikely]]
      inner_lock_contended(id, false);
  }
  void inner_unlock() noexcept { word.store(free_word, std::memory_order_release); }

private:
  static constexpr unsigned int free_word = 0xFFFFFFFF;

  // If the stack has no room for what is done under the inner lock, it overflows
  // here, where nothing is held yet. Page by page, as the guard must be met.
  static void touch_stack() noexcept {
    auto const frame = static_cast<char const volatile*>(__builtin_frame_address(0));
    (void)frame[-2048];
    (void)frame[-2048 - 4096];
  }

  bool is_free() const noexcept { return word.load(std::memory_order_relaxed) == free_word; }
  bool try_inner_lock(_owner_id id) noexcept {
    unsigned int expected = free_word;
    return word.compare_exchange_strong(expected, id.bits, std::memory_order_acquire);
  }
  void inner_lock_contended(_owner_id id, bool alertable);

  // The holder's id is for people who look into a dump.
  std::atomic<unsigned int> word = free_word;

public:
  _ml_interlocked_inner_lock() noexcept = default;
  _ml_interlocked_inner_lock(_ml_interlocked_inner_lock const&) = delete;
  _ml_interlocked_inner_lock& operator=(_ml_interlocked_inner_lock const& other) noexcept {
    word.store(other.word.load());
    return *this;
  }
};

// All operations: under the inner lock.
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

  // Removes the newest record of the owner, for reading or writing, and returns
  // it; no_record if there is none.
  _owner_id remove_owner(_owner_id id) noexcept;
  static constexpr unsigned int no_record = 0xFFFFFFFF;

  // How many of the records are the owner's. None of an empty list.
  share owner_share(_owner_id id) const noexcept;

  // These three are false for an empty list.
  bool is_only_owner(_owner_id id) const noexcept;
  bool all_one_owner() const noexcept;
  bool no_write_owner() const noexcept;

  int owner_count() const noexcept { return owners_count; }
  _owner_id owner_at(int index) const noexcept { return owners[index]; }

private:
  static constexpr int inline_records = 2;

  void grow();

  // In the order of acquisition, oldest first. Two records lie in the lock
  // itself, which is enough for an upgrade and for a read inside a write.
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
  static constexpr signal_set sig_sole_owner = 4;  // one owner remains; it may go on
  static constexpr signal_set sig_read_open = 8;   // writers have gone; readers may enter

  _ml_free_signal_event() noexcept = default;
  // Takes the inner lock and keeps it.
  ~_ml_free_signal_event();

  // Under the inner lock, which they release. A signal that stands as wanted
  // costs no platform call, and neither does one that nobody ever waited for.
  void set_signal(signal_set mask) noexcept {
    raise(mask);
    inner_unlock();
  }
  void reset_signal(signal_set mask) noexcept {
    lower(mask);
    inner_unlock();
  }

  // The same without releasing the inner lock.
  void raise(signal_set mask) noexcept {
    signal_set const risen = mask & ~signals;
    signals |= risen;
    if (has_events) set_events(risen);
  }
  void lower(signal_set mask) noexcept {
    signal_set const fallen = mask & signals;
    signals &= ~fallen;
    if (has_events) reset_events(fallen);
  }

  // What one operation knows of its waits so far.
  struct wait_history {
    bool failed = false;                // the platform refused the last wait
    bool took_wake_up = false;          // the last wait ended by sig_free
    unsigned int wake_ups_before = 0;   // how many there had been when it began
  };

  // Called under the inner lock, which is released in every case but when the
  // timer cannot be set. Waits until one of the signals is up, alertably; of
  // sig_sole_owner it takes notice only if `id` is that owner. True: look at the
  // state again. False: the time ran out. 0 asks without waiting, and
  // 0xFFFFFFFF means no limit. Throws ESystemException if the wait fails, and
  // says so in the history: a queued call may throw the same.
  bool wait_signal(signal_set mask, _owner_id id, unsigned int timeout, wait_history& history);

  // Takes the inner lock after a wait that told to look again. If a queued call
  // throws out of it, a wake-up that the wait has used up goes on to the next
  // waiter.
  void inner_lock_after_wait(_owner_id id, wait_history const& history);

private:
  struct event {
    signal_set signal;
    bool manual;
    void* _ml_free_signal_event::*handle;
  };
  // In the order of priority: a wait reports the first that is signalled.
  static event const events[3];

  void* handle_for(event const& each) noexcept;

  void set_events(signal_set risen) noexcept;
  void reset_events(signal_set fallen) noexcept;

  // Null until somebody waits for the signal.
  void* ev_read_open = nullptr;
  void* ev_sole_owner = nullptr;
  void* ev_free = nullptr;
  // The truth; the events follow.
  signal_set signals = sig_free;
  // Each setting of ev_free wakes one thread. The last one is known to have done
  // so when that thread is back and nobody has set the event since; then it need
  // not be reset, which saves a platform call for each hand-over of a lock.
  unsigned int wake_ups = 0;
  bool last_wake_up_taken = false;
  bool has_events = false;
};
