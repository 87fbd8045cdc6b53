#include "velt/base/LoadOrderInternal.h"

#include "velt/base/ThreadSlotInternal.h"
#include "velt/debug/DebugStream.h"
#include "velt/diagnostics/ThrowWatchingInternal.h"
#include "velt/faults/ShadowStacksInternal.h"
#include "velt/faults/ThrownObjectInternal.h"
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

// Insides of the platform and of the run time that no document promises. Each is compared
// by this step at the latest, next to the code that relies on it. That code does without
// if it differs.
VELT_LOAD_STEP(insides_reported) struct report {
  report() {
    struct {
      bool holds;
      char const* line;
    } const insides[] = {
        {slots_in_block != 0, "(!) velt: thread slots lie elsewhere, and take longer to read\n"},
        {knows_thrown_objects(), "(!) velt: thrown objects differ, and their types are not read\n"},
        {may_redirect_threads(), "(!) velt: shadow stacks are on; overflows need more stack\n"},
    };
    for (auto const& [holds, line] : insides)
      if (!holds) Debug << line;
  }
} const insides;

}  // namespace
}  // namespace velt::detail
