/* The counts in front of a pool's semaphore, for the model checker spin; docs/model/check
   runs it with the bounds and variants below.

   One thread posts POSTS jobs, another empties the queue CLEARS times, and WORKERS
   workers take jobs. A wait can run out LIMITS times and be left by an exception
   THROWS times, whereupon its worker comes back; KILLS sleeping workers end for good.
   Help that always may come would hide a worker that needs it, so all three are
   bounded. One worker is never killed.

   A step is one atomic operation of the count, one call of the semaphore, or what is
   done to the queue under its lock. A worker ends where it sleeps if all jobs were
   posted and none is left. So a job that nobody will ever take shows as a state in
   which no thread can go on though not all have ended.

   Variants that must fail:
     DRAIN_FIRST     the queue is emptied from the semaphore first
     BLIND_SETTLE    a worker whose wait ran out does not ask who sleeps
     NO_GIVING_BACK  a worker that an exception takes out of its wait keeps its count */

#ifndef WORKERS
#define WORKERS 3
#endif
#ifndef POSTS
#define POSTS 5
#endif
#ifndef CLEARS
#define CLEARS 1
#endif
#ifndef LIMITS
#define LIMITS 2
#endif
#ifndef THROWS
#define THROWS 1
#endif
#ifndef KILLS
#define KILLS 1
#endif

bool queue_lock = false;
byte queue = 0;
short counts = 0;   /* positive: free; negative: workers that sleep and have none coming */
byte semaphore = 0;
byte posts_left = POSTS, clears_left = CLEARS;
byte limits = LIMITS, throws = THROWS, kills = KILLS;
byte giving_back = 0; /* workers that have a count and will post it again */

inline lock() { atomic { !queue_lock -> queue_lock = true } }
inline unlock() { queue_lock = false }

/* Under the queue's lock. */
inline post() {
  if
  :: atomic { counts < 0 -> counts++ }
     semaphore++
  :: atomic { counts >= 0 -> counts++ }
  fi
}

proctype poster() {
  do
  :: posts_left > 0 ->
     atomic { !queue_lock -> queue_lock = true; queue++ }
     post();
     atomic { unlock(); posts_left-- }
  :: posts_left == 0 -> break
  od
}

inline drain() {
  do
  :: atomic { semaphore > 0 -> semaphore-- }
     counts--
  :: atomic { semaphore == 0 -> break }
  od
}

inline drop_free_counts() {
  atomic { counts = (counts > 0 -> 0 : counts) }
}

proctype cleaner() {
  do
  :: clears_left > 0 ->
     lock();
#ifdef DRAIN_FIRST
     drain();
     drop_free_counts();
#else
     drop_free_counts();
     drain();
#endif
     atomic { queue = 0; unlock(); clears_left-- }
  :: atomic { clears_left > 0 -> clears_left = 0 }
  :: clears_left == 0 -> break
  od
}

proctype worker(byte me) {
  bool thrown = false;

take:
  if
  :: atomic { counts > 0 -> counts--; goto taken }
  :: atomic { counts <= 0 -> counts-- }
  fi;

  if
  :: atomic { semaphore > 0 -> semaphore--; goto taken }
  :: atomic { semaphore == 0 && limits > 0 -> limits-- }
  :: atomic { semaphore == 0 && throws > 0 -> throws--; thrown = true }
  :: atomic { semaphore == 0 && kills > 0 && me > 0 -> kills--; goto ended }
  :: atomic { semaphore == 0 && posts_left == 0 && queue == 0 && giving_back == 0 -> goto ended }
  fi;

  /* Settle: by compare-and-swap, or by a wait of 0. */
  if
#ifdef BLIND_SETTLE
  :: atomic { counts++; thrown = false; goto take }
#else
  :: atomic { counts < 0 -> counts++; thrown = false; goto take }
  :: counts >= 0
#endif
  fi;
  if
  :: atomic { semaphore == 0 -> thrown = false; goto take }
  :: atomic { semaphore > 0 && !thrown -> semaphore--; goto taken }
  :: atomic { semaphore > 0 && thrown -> semaphore--; thrown = false; giving_back++ }
  fi;
#ifndef NO_GIVING_BACK
  lock();
  post();
  atomic { unlock(); giving_back-- };
#else
  giving_back--;
#endif
  goto take;

taken:
  /* Each count has its job, unless the queue was emptied or workers came too late. */
  atomic { !queue_lock -> assert(queue > 0 || CLEARS > 0);
    queue = (queue > 0 -> queue - 1 : 0) }
  goto take;

ended:
  skip
}

init {
  byte i = 0;
  atomic {
    run poster();
    run cleaner();
    do
    :: i < WORKERS -> run worker(i); i++
    :: else -> break
    od
  }
}
