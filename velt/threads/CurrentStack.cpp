#include <windows.h>

#include <optional>

#include "velt/diagnostics/ProcessLocksInternal.h"
#include "velt/locks/Lock.h"
#include "velt/locks/Mutex.h"
#include "velt/symbols/SymbolsInternal.h"
#include "velt/threads/ThreadClass.h"

namespace {

// The locks that a walk takes. Owned before, so that the thread that is stopped
// cannot have one of them in its hands, for which the walk would wait for ever.
class walk_locks {
public:
  walk_locks() : symbols(velt::detail::symbol_lock()) {
    for (int i = 0; i < tries && !has_loader(); ++i) {
      if (i != 0) TThread::Pause();
      loader.emplace();
    }
    heap.emplace();
  }

private:
  // Threads that begin and end take the loader's lock for a moment.
  static constexpr int tries = 1000;

  bool has_loader() const noexcept { return loader && loader->held(); }

  TLock symbols;
  std::optional<velt::detail::LoaderLockGuard> loader;
  std::optional<velt::detail::HeapLockGuard> heap;
};

constexpr unsigned int most_frames = 64;

unsigned int walk_suspended(void* thread, unsigned __int64 (&frames)[most_frames]) noexcept {
  CONTEXT context{};
  context.ContextFlags = CONTEXT_FULL;
  if (!GetThreadContext(thread, &context)) return 0;
  return StackWalk(frames, &context, thread, 0, most_frames);
}

}  // namespace

// The names are looked up when the thread runs again: they take long.
std::string TThreadClass::GetCurrentStack() const {
  velt::detail::engine_hold const engine;
  unsigned __int64 frames[most_frames] = {};
  unsigned int count;
  {
    walk_locks const locks;
    if (::SuspendThread(handle) != 0) return std::string();
    count = walk_suspended(handle, frames);
    ::ResumeThread(handle);
  }
  return SymGetStackTrace(frames, count);
}
