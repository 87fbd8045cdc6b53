#include <windows.h>

#include <atomic>
#include <cstddef>
#include <mutex>
#include <new>
#include <utility>

#include "velt/base/ThreadSlotInternal.h"
#include "velt/value/HolderCacheInternal.h"

namespace velt::detail {
namespace {

// Holders of numbers and handles have 16 or 24 bytes, sequences 40, texts 48: few
// sizes of blocks serve them all, and a list of blocks of one size needs no search.
constexpr std::size_t granule = 16;       // block sizes go up in steps of this
constexpr std::size_t bins = 4;           // so a cached block has at most 64 bytes

// A batch is large enough that its lock costs little for each block, and the limits
// keep what lies idle small: 40 KB for a thread, 1.3 MB for the depot.
constexpr unsigned batch_size = 128;      // blocks that move between threads at once
constexpr unsigned thread_limit = 2 * batch_size;  // blocks of one size that a thread keeps
constexpr unsigned depot_limit = 64;      // batches of one size that the depot keeps

// What stands in a block while it is free.
struct free_block {
  free_block* next;        // in the same list
  free_block* next_batch;  // in the first block of a batch that lies in the depot
};
static_assert(sizeof(free_block) <= granule);

struct free_list {
  free_block* first = nullptr;
  unsigned count = 0;

  void push(free_block* block) noexcept {
    block->next = first;
    first = block;
    ++count;
  }
  free_block* pop() noexcept {
    free_block* const block = first;
    first = block->next;
    --count;
    return block;
  }
};

struct thread_cache {
  free_list lists[bins];
  // Holders made minus holders freed by this thread; negative for a thread that
  // frees what others made. Written by this thread alone, so an addition needs no
  // locked instruction; atomic since live_holders() reads it.
  std::atomic<__int64> live = 0;
  thread_cache* next = nullptr;
};

void free_all(free_block* block) noexcept {
  while (block) ::operator delete(std::exchange(block, block->next));
}

class srw_lock {
public:
  void lock() noexcept { AcquireSRWLockExclusive(&native); }
  void unlock() noexcept { ReleaseSRWLockExclusive(&native); }

private:
  SRWLOCK native = SRWLOCK_INIT;
};

// Constant-initialised and trivially destroyed: values are made before and
// after the library's other static objects live.
struct depot {
  srw_lock lock;
  free_block* batches[bins] = {};
  unsigned counts[bins] = {};
  thread_cache* caches = nullptr;  // of all threads, for counting and unloading
  __int64 live_elsewhere = 0;      // of ended threads and of uncached holders
  bool closed = false;
};
constinit depot shared;

// The slot that holds the calling thread's cache. Taken on the first use, since
// values may be made before the library's own constructors run. thread_local would
// not do: it allocates, and its destructors run before the last values are freed.
constinit std::atomic<DWORD> slot = TLS_OUT_OF_INDEXES;

// Stands in the slot of a thread whose cache is gone. Other modules that hear of the
// thread's end later may still make and free values on it: from the heap, since
// nobody would give another cache back. Its lists look empty to those who take and
// full to those who free, so the quick functions need no test for it.
constinit thread_cache no_cache = {
    .lists = {{nullptr, thread_limit}, {nullptr, thread_limit}, {nullptr, thread_limit},
              {nullptr, thread_limit}}};

thread_cache* stored_cache(DWORD index) noexcept {
  return static_cast<thread_cache*>(read_thread_slot(index));
}

// A cache for the calling thread; null if there can be none, and the heap
// serves instead.
thread_cache* make_cache() noexcept {
  std::lock_guard const guard(shared.lock);
  if (shared.closed) return nullptr;
  DWORD index = slot.load(std::memory_order_relaxed);
  if (index == TLS_OUT_OF_INDEXES) {
    index = TlsAlloc();
    if (index == TLS_OUT_OF_INDEXES) return nullptr;
    slot.store(index, std::memory_order_release);
  }
  auto const cache = new (std::nothrow) thread_cache;
  if (!cache) return nullptr;
  if (!write_thread_slot(index, cache)) {
    delete cache;
    return nullptr;
  }
  cache->next = std::exchange(shared.caches, cache);
  return cache;
}

// The cache of the calling thread where one instruction gives it; null also for
// a thread that has one elsewhere.
thread_cache* cache_at_hand() noexcept {
  DWORD const index = slot.load(std::memory_order_acquire);
  return lies_in_block(index) ? static_cast<thread_cache*>(read_in_block(index)) : nullptr;
}

// Null if the thread has none and can get none.
thread_cache* current_cache() noexcept {
  auto const cache = stored_cache(slot.load(std::memory_order_acquire));
  if (!cache) return make_cache();
  return cache != &no_cache ? cache : nullptr;
}

void count(thread_cache& cache, int change) noexcept {
  cache.live.store(cache.live.load(std::memory_order_relaxed) + change, std::memory_order_relaxed);
}

void count(thread_cache* cache, int change) noexcept {
  if (cache) [[likely]] {
    count(*cache, change);
  } else {
    std::lock_guard const guard(shared.lock);
    shared.live_elsewhere += change;
  }
}

std::size_t bin_of(std::size_t size) noexcept { return (size - 1) / granule; }

// Fills an empty list with a batch from the depot, if there is one.
bool refill(free_list& list, std::size_t bin) noexcept {
  std::lock_guard const guard(shared.lock);
  free_block* const batch = shared.batches[bin];
  if (!batch) return false;
  shared.batches[bin] = batch->next_batch;
  --shared.counts[bin];
  list = {batch, batch_size};
  return true;
}

// Takes a batch off a full list and gives it to the depot, or to the heap if
// the depot is full too. The thread keeps the other half: one that makes and frees
// in turn does not come here again with every block.
void hand_on(free_list& list, std::size_t bin) noexcept {
  free_block* const batch = list.first;
  free_block* last = batch;
  for (unsigned i = 1; i < batch_size; ++i) last = last->next;
  list = {std::exchange(last->next, nullptr), list.count - batch_size};
  {
    std::lock_guard const guard(shared.lock);
    if (shared.counts[bin] < depot_limit) {
      batch->next_batch = std::exchange(shared.batches[bin], batch);
      ++shared.counts[bin];
      return;
    }
  }
  free_all(batch);
}

void dissolve(thread_cache* cache) noexcept {
  for (auto& list : cache->lists) free_all(list.first);
  delete cache;
}

// All cases. The two functions behind these handle the one that is nearly always
// met; a call from there would cost them as much as their work does.
[[gnu::noinline]] void* allocate_in_any_case(std::size_t size) {
  std::size_t const bin = bin_of(size);
  thread_cache* const cache = current_cache();
  void* block;
  if (!cache || bin >= bins)
    block = ::operator new(size);
  else if (auto& list = cache->lists[bin]; list.first || refill(list, bin))
    block = list.pop();
  else
    // Of the full size of its bin: it may come back as any other size of that.
    block = ::operator new((bin + 1) * granule);
  count(cache, 1);
  return block;
}

[[gnu::noinline]] void free_in_any_case(void* block, std::size_t size) noexcept {
  std::size_t const bin = bin_of(size);
  thread_cache* const cache = current_cache();
  count(cache, -1);
  if (!cache || bin >= bins) {
    ::operator delete(block);
    return;
  }
  auto& list = cache->lists[bin];
  if (list.count >= thread_limit) hand_on(list, bin);
  list.push(static_cast<free_block*>(block));
}

}  // namespace

void* allocate_holder(std::size_t size) {
  std::size_t const bin = bin_of(size);
  thread_cache* const cache = cache_at_hand();
  if (!cache || bin >= bins || !cache->lists[bin].first) [[unlikely]]
    return allocate_in_any_case(size);
  count(*cache, 1);
  return cache->lists[bin].pop();
}

void free_holder(void* block, std::size_t size) noexcept {
  std::size_t const bin = bin_of(size);
  thread_cache* const cache = cache_at_hand();
  if (!cache || bin >= bins || cache->lists[bin].count >= thread_limit) [[unlikely]]
    return free_in_any_case(block, size);
  count(*cache, -1);
  cache->lists[bin].push(static_cast<free_block*>(block));
}

void end_thread_of_holder_cache() noexcept {
  DWORD const index = slot.load(std::memory_order_acquire);
  thread_cache* const cache = stored_cache(index);
  write_thread_slot(index, &no_cache);
  if (!cache || cache == &no_cache) return;
  {
    std::lock_guard const guard(shared.lock);
    shared.live_elsewhere += cache->live.load(std::memory_order_relaxed);
    for (auto link = &shared.caches; *link; link = &(*link)->next)
      if (*link == cache) {
        *link = cache->next;
        break;
      }
  }
  dissolve(cache);
}

void close_holder_cache() noexcept {
  std::lock_guard const guard(shared.lock);
  shared.closed = true;
  // Without a slot no thread finds its cache, so no list is used any more: whoever
  // frees a value from now on goes to the heap.
  DWORD const index = slot.exchange(TLS_OUT_OF_INDEXES);
  if (index != TLS_OUT_OF_INDEXES) TlsFree(index);
  while (shared.caches) {
    shared.live_elsewhere += shared.caches->live.load(std::memory_order_relaxed);
    dissolve(std::exchange(shared.caches, shared.caches->next));
  }
  for (auto& batch : shared.batches)
    while (batch) free_all(std::exchange(batch, batch->next_batch));
}

__int64 live_holders() noexcept {
  std::lock_guard const guard(shared.lock);
  __int64 total = shared.live_elsewhere;
  for (auto cache = shared.caches; cache; cache = cache->next)
    total += cache->live.load(std::memory_order_relaxed);
  return total;
}

__int64 kept_holder_blocks() noexcept {
  std::lock_guard const guard(shared.lock);
  __int64 total = 0;
  for (unsigned batches : shared.counts) total += static_cast<__int64>(batches) * batch_size;
  for (auto cache = shared.caches; cache; cache = cache->next)
    for (auto const& list : cache->lists) total += list.count;
  return total;
}

}  // namespace velt::detail
