/* The protocol of TMultiLock, for the model checker spin; docs/model/check runs
   it with the bounds and variants below.

   Each thread takes and ends holds at will, up to DEPTH at once, asks with and
   without a limit, and may stop for good whenever it holds nothing. So a waiter
   that nobody will ever wake shows as a state in which no thread can go on
   though not all have stopped, and so does a dead-lock.

   What a step is: everything that is done under the inner lock is one step, with
   the events set in it; giving the inner lock back is another, because a woken
   thread may find it still taken. A wait takes its event in one step, in the
   order of priority. A limit can run out whenever no signal that is waited for is
   up, and queued calls that throw can come wherever a thread waits or spins to
   take a hold, but only THROWS of them in a run: help that always may come would
   hide a waiter that needs it.

   A thread that throws out of its first spin has done nothing, so that is no step
   here: it holds what it held.

   An event is set or reset only while a thread is counted that waits for it, and a
   new waiter brings its events in line with the signals. The count is raised in the
   step that decides to wait, and lowered in one of its own after the wait. An event
   that was never made is one that is down. A wake-up that is under way may be sent
   once more, or not. Of an event that nobody waits for, the two manual ones count as
   down, since the next waiter does not care. A thread that spins before it waits does
   what another does that asks without waiting and then asks again.

   Left out, since they change nothing in what is shown here: thread ids, memory,
   failures of the platform, and the order of the records of different owners.

   The lock is not fair, and the model does not ask it to be: readers that come
   and go can keep a writer waiting for ever (STARVATION shows it), and a reader
   beside a write hold of no thread may find the signal for readers still up and
   spin until that ends. Both are endless runs in which threads move, so they are
   no dead-locks here.

   A caller can also wait for itself, which no lock could know: with a hold of
   its own, or one of no thread that only it will end, in the way of what it asks
   for without limit. The threads here do not, unless SELFISH is defined.

   Variants that must fail:
     NO_UPGRADE_CHECK    the second upgrader waits, too
     NO_PASSING_ON       a woken thread that a queued call takes out of the spin
                         keeps the wake-up
     PLAIN_COUNT         the count of upgraders is changed by loads and stores
     KEPT_WAKE_UP        a woken thread that is back leaves its wake-up under way
     LATE_COUNT          a waiter is counted when it has given the inner lock back
     SELFISH             see above
     STARVATION          claims that a writer that waits gets its turn */

#ifndef THREADS
#define THREADS 2
#endif
#ifndef DEPTH
#define DEPTH 3
#endif
#ifndef THROWS
#define THROWS 1
#endif
#ifndef INDEPENDENT
#define INDEPENDENT 1
#endif

#define nobody THREADS /* the owner of the holds of no thread */
#define owners (THREADS + 1)

/* Numbers as in the sources. */
#define not_locked 0
#define locked_read 1
#define locked_write 2
#define sig_free 2
#define sig_sole_owner 4
#define sig_read_open 8

bool inner = false;
byte state = not_locked;
byte rw_waiters = 0;
byte signals = sig_free;
byte events = 0; /* those that are up; one waiter takes sig_free's */
byte shown = 0;  /* those that the lock has set and knows nothing else of */
byte waits_for[THREADS] = 0;
byte throws = THROWS;
byte changed = 0; /* between two lines of one step */

/* The records: for each owner, from the oldest to the newest, a 1 for each write
   and a 0 for each read behind a leading 1. */
short records[owners] = 1;
byte count[owners] = 0;
byte total = 0;
byte write_records = 0;

byte stopped = 0;

#if THREADS == 2
#define awaited (waits_for[0] | waits_for[1])
#else
#define awaited (waits_for[0] | waits_for[1] | waits_for[2])
#endif
#define sig_manual (sig_sole_owner | sig_read_open)

inline raise(mask) {
  changed = (mask) & ~signals & awaited;
  signals = signals | (mask);
  if
  :: (changed & shown & sig_free) == 0
  :: (changed & shown & sig_free) != 0 -> changed = changed & ~sig_free
  :: (changed & shown & sig_free) != 0
  fi;
  events = events | changed;
  shown = shown | changed;
  changed = 0
}

inline lower(mask) {
  changed = (mask) & signals & awaited & sig_manual;
  signals = signals & ~(mask);
  events = events & ~changed;
  shown = shown & ~changed;
  changed = 0
}

inline bring_in_line(mask) {
  changed = (mask) & (signals ^ shown);
  events = (events & ~changed) | (signals & changed);
  shown = (shown & ~changed) | (signals & changed);
  changed = 0
}

inline forget_events() {
  events = events & (awaited | sig_free);
  shown = shown & (awaited | sig_free)
}

inline add_owner(owner, writes) {
  records[owner] = (records[owner] << 1) | writes;
  count[owner]++;
  total++;
  write_records = write_records + writes;
}

inline remove_owner(owner) {
  removed_writes = records[owner] & 1;
  records[owner] = records[owner] >> 1;
  count[owner]--;
  total--;
  write_records = write_records - removed_writes;
}

#define one_owner_has_all (total > 0 && (count[0] == total || count[1] == total || \
                                         count[2] == total || count[THREADS] == total))

/* What holds whenever the inner lock is given back. */
inline check_invariants() {
  assert((state == not_locked) == (total == 0));
  assert((state == locked_write) == (write_records > 0));
  assert(state != locked_write || one_owner_has_all);
  assert((state == not_locked) == ((signals & sig_free) != 0));
  assert(((events ^ shown) & sig_manual) == 0);
#ifndef LATE_COUNT
  assert(((signals ^ shown) & awaited & sig_manual) == 0);
#endif
#if !defined(NO_UPGRADE_CHECK) && !defined(PLAIN_COUNT)
  assert(rw_waiters <= 1);
#endif
}

mtype = {granted, waits, refused, dead_lock};

#define share_some (!independent && count[id] > 0 && count[id] < total)
#define share_all (!independent && count[id] > 0 && count[id] == total)

/* One look at the state, under the inner lock. */
inline look() {
  /* Whoever writes is alone, so these two rows of the protocol are never met. */
  assert(!(state == locked_write && share_some));
  outcome = granted;
  if
  :: state == not_locked ->
     state = (writes -> locked_write : locked_read);
     add_owner(id, writes);
     if
     :: writes && !independent -> lower(sig_free | sig_sole_owner | sig_read_open)
     :: else -> lower(sig_free)
     fi
  :: state == locked_read && !writes ->
     add_owner(id, 0);
     lower(sig_sole_owner)
  :: state == locked_read && writes && share_all ->
     state = locked_write;
     add_owner(id, 1);
     lower(sig_read_open)
  :: state == locked_write && share_all ->
     add_owner(id, writes)
  :: state == locked_write && !share_all && !writes ->
     outcome = waits;
     mask = sig_read_open | sig_free
  :: state != not_locked && !share_all && !share_some && writes ->
     outcome = waits;
     mask = sig_free
  :: state == locked_read && share_some && writes ->
     outcome = waits;
     mask = sig_sole_owner | sig_free;
     counted = true
  fi;
  if
  :: outcome == waits && limit == 0 -> outcome = refused
  :: outcome == waits && limit != 0 -> assert((signals & sig_free) == 0); register()
  :: else
  fi
}

inline register() {
  bring_in_line(mask);
#ifndef LATE_COUNT
  waits_for[me] = mask
#endif
}

/* Raises the count of upgraders, under the inner lock. */
inline count_upgrader() {
#ifdef PLAIN_COUNT
  loaded = rw_waiters;
  rw_waiters = loaded + 1;
  refuse_if_second();
#else
  atomic { rw_waiters++; refuse_if_second() }
#endif
}

inline refuse_if_second() {
#ifndef NO_UPGRADE_CHECK
  if
  :: rw_waiters > 1 -> uncount_upgrader(); outcome = dead_lock
  :: else
  fi
#else
  skip
#endif
}

/* A waiter that used up a wake-up and cannot go on wakes another. */
inline pass_on() {
#ifndef NO_PASSING_ON
  events = events | (took_wake_up -> sig_free : 0)
#else
  skip
#endif
}

inline uncount_upgrader() {
#ifdef PLAIN_COUNT
  loaded = rw_waiters;
  rw_waiters = loaded - 1;
  counted = false
#else
  atomic { rw_waiters--; counted = false }
#endif
}

#define up (events & mask)
#define may_throw (throws > 0)

#define holds_of_mine (count[me] + mine_of_nobody)

/* What a thread may ask for next. */
inline ask() {
  if
  :: writes = false
  :: writes = true
  fi;
#if INDEPENDENT
  if
  :: independent = false
  :: independent = true; id = nobody
  fi;
#endif
  if
  :: limit = 0
  :: limit = 1
#ifdef SELFISH
  :: limit = 2
#else
  :: mine_of_nobody == 0 && (!independent || count[me] == 0) -> limit = 2
#endif
  fi
}

/* From the look to the count of upgraders. The caller opens the step and this
   closes it, since a count by loads and stores is more steps than one. */
#ifdef PLAIN_COUNT
#define enter() look() } if :: counted -> count_upgrader() :: else fi
#else
#define enter() look(); if :: counted -> count_upgrader() :: else fi }
#endif

inline look_again() {
#ifndef KEPT_WAKE_UP
  shown = shown & ~(took_wake_up -> sig_free : 0);
#endif
  took_wake_up = false
}

inline release() {
  remove_owner(id);
  if
  :: total == 0 -> state = not_locked; raise(sig_free)
  :: else ->
     if
     :: one_owner_has_all -> raise(sig_sole_owner)
     :: else
     fi;
     if
     :: removed_writes && state == locked_write && write_records == 0 ->
        state = locked_read;
        raise(sig_read_open)
     :: else
     fi
  fi
}

/* Equal whatever came before, so that there are fewer states. */
inline forget() {
  writes = false; independent = false; woken = false; took_wake_up = false;
  removed_writes = false;
  mask = 0; limit = 0; id = me; outcome = granted
}

proctype user(byte me) {
  byte id = me;
  byte mine_of_nobody = 0;
  byte limit = 0; /* 0 asks without waiting, 1 is some limit, 2 is none */
  byte mask = 0;
#ifdef PLAIN_COUNT
  byte loaded = 0;
#endif
  bool writes = false, independent = false, counted = false;
  bool woken = false, took_wake_up = false, removed_writes = false;
  mtype outcome = granted;

choose:
  if
  :: atomic { holds_of_mine == 0 -> goto stop }
  :: atomic { !inner && holds_of_mine > 0 -> inner = true;
       if
       :: count[me] > 0
       :: mine_of_nobody > 0 -> id = nobody; mine_of_nobody--
       fi;
       release(); check_invariants() }
     atomic { inner = false; forget(); goto choose }
  :: atomic { !inner && holds_of_mine < DEPTH -> inner = true; ask(); enter()
  fi;

entered:
  atomic { check_invariants(); inner = false;
    if
    :: outcome == granted ->
       if
       :: independent -> mine_of_nobody++
       :: else
       fi;
       forget(); goto choose
    :: outcome == dead_lock -> forget(); goto choose
    :: outcome == refused -> goto leave
    :: outcome == waits
    fi
  }
#ifdef LATE_COUNT
  waits_for[me] = mask;
#endif

waiting:
  if
  :: atomic { (up & sig_sole_owner) != 0 && !inner ->
       inner = true; woken = (count[id] > 0 && count[id] == total) }
     atomic { inner = false;
       if
       :: woken
       :: !woken -> goto waiting
       fi
     }
  :: atomic { (up & sig_sole_owner) != 0 && inner && may_throw -> throws--; outcome = refused }
  :: atomic { (up & sig_sole_owner) == 0 && (up & sig_read_open) != 0 -> woken = true }
  :: atomic { up == sig_free ->
       events = events & ~sig_free; woken = true; took_wake_up = true }
  :: atomic { up == 0 && limit == 1 -> outcome = refused }
  :: atomic { up == 0 && may_throw -> throws--; outcome = refused }
  fi;
  atomic { waits_for[me] = 0; mask = 0; woken = false; forget_events() };

leave:
  if
  :: counted -> uncount_upgrader()
  :: !counted
  fi;
  if
  :: atomic { outcome == waits && !inner -> inner = true; look_again(); enter(); goto entered
  :: atomic { outcome == waits && inner && may_throw ->
       throws--; pass_on(); forget(); goto choose }
  :: atomic { outcome == refused -> forget(); goto choose }
  fi;

stop:
  atomic {
    stopped++;
    assert(stopped < THREADS || (state == not_locked && total == 0 && rw_waiters == 0))
  }
}

init {
  byte i = 0;
  atomic {
    do
    :: i < THREADS -> run user(i); i++
    :: else -> break
    od
  }
}

#ifdef STARVATION
/* The first thread, once it waits, waits no more at some time, if each of the
   others lets go again and again. Process 0 is init. */
ltl served {
  ([]<> (count[1] == 0) && []<> (count[2] == 0)) ->
      [] (user[1]@waiting -> <> !(user[1]@waiting))
}
#endif
