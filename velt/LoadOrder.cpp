#include "velt/base/LoadOrderInternal.h"

#include "velt/diagnostics/ThrowWatchingInternal.h"
#include "velt/symbols/SymbolsInternal.h"
#include "velt/threads/SystemThreadPoolInternal.h"
#include "velt/value/HolderCacheInternal.h"

namespace velt::detail {
namespace {

// At the end of the process the platform frees its memory.
VELT_LOAD_STEP(memory_of_holders) struct memory_end {
  ~memory_end() {
    if (!process_ends()) close_holder_cache();
  }
} const holders;

VELT_LOAD_STEP(engine_abandoned) struct engine_end {
  ~engine_end() {
    if (!process_ends()) abandon_engine();
  }
} const engine;

VELT_LOAD_STEP(system_pool_stopped) struct pool_end {
  ~pool_end() {
    if (!process_ends()) end_system_thread_pool();
  }
} const pool;

VELT_LOAD_STEP(throws_watched) struct watch {
  watch() { start_watching_throws(); }
  ~watch() { stop_watching_throws(process_ends()); }
} const throws;

}  // namespace
}  // namespace velt::detail
