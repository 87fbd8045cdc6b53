/* The event for threads that wait until a pool is idle, for the model checker spin;
   docs/model/check runs it with the variants below.

   One thread adds JOBS jobs, which another finishes, in any order with WAITERS threads
   that wait once each; a limit may end LIMITS waits. A step is what is done under the
   lock of the queue, one look at the flag without it, or one call of the event. A waiter
   that stays behind when all jobs are finished shows as a state in which no thread can
   go on though not all have ended. A wait that the event ends must have seen the pool
   idle.

   Variants that must fail:
     NOT_IN_LINE  a new waiter leaves the event as it is
     ONLY_RESET   a new waiter resets a stale event, but does not set one
     LATE_COUNT   a waiter is counted when it has given the lock back */

#ifndef WAITERS
#define WAITERS 3
#endif
#ifndef JOBS
#define JOBS 4
#endif
#ifndef LIMITS
#define LIMITS 1
#endif

bool queue_lock = false;
byte unadded = JOBS, running = 0;
bool idle = true;
bool event = true;
bool shown = true; /* what the pool knows of the event */
byte waiting = 0;
byte limits = LIMITS;
byte became_idle = 0; /* so many times */

inline lock() { atomic { !queue_lock -> queue_lock = true } }
inline unlock() { queue_lock = false }

proctype adder() {
  do
  :: unadded > 0 ->
     atomic { !queue_lock -> unadded--; running++; idle = false }
  :: unadded == 0 -> break
  od
}

proctype finisher() {
  do
  :: running > 0 ->
     lock();
     running--;
     if
     :: running == 0 ->
        atomic { idle = true; became_idle++ };
        if
        :: waiting > 0 && !shown -> event = true; shown = true
        :: else
        fi
     :: else
     fi;
     unlock()
  :: unadded == 0 && running == 0 -> break
  od
}

proctype waiter() {
  byte before;
  if
  :: idle -> goto ended
  :: atomic { !idle -> before = became_idle }
  fi;
  lock();
#ifndef NOT_IN_LINE
  if
#ifdef ONLY_RESET
  :: shown && !idle -> event = false; shown = false
#else
  :: shown != idle -> event = idle; shown = idle
#endif
  :: else
  fi;
#endif
#ifndef LATE_COUNT
  waiting++;
#endif
  unlock();
#ifdef LATE_COUNT
  waiting++;
#endif
  if
  :: event -> assert(became_idle != before)
  :: atomic { !event && limits > 0 -> limits-- }
  fi;
  waiting--;

ended:
  skip
}

init {
  byte i = 0;
  atomic {
    run adder();
    run finisher();
    do
    :: i < WAITERS -> run waiter(); i++
    :: else -> break
    od
  }
}
