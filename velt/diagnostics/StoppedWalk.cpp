#include "velt/diagnostics/StoppedWalkInternal.h"

#include <windows.h>

#include "velt/diagnostics/ProcessLocksInternal.h"
#include "velt/symbols/SymbolEngineInternal.h"

namespace velt::detail {
namespace {

std::optional<short_stack> stop_and_walk(HANDLE thread) {
  process_locks const locks(when_taken::try_again);
  if (!locks.held()) return {};
  engine_isolation const isolation;
  if (SuspendThread(thread) != 0) return {};
  auto const stack = walk_stopped(thread);
  ResumeThread(thread);
  return stack;
}

}  // namespace

std::optional<short_stack> walk_stopped(void* thread) {
  CONTEXT context{};
  context.ContextFlags = CONTEXT_FULL;
  if (!GetThreadContext(thread, &context)) return {};
  return short_stack(&context, thread);
}

std::string text_of_running_thread(void* thread) {
  engine_hold const engine;  // for both the walk and the names
  if (engine) prepare_walks();
  auto const stack = stop_and_walk(thread);
  return stack ? stack->text() : std::string();
}

}  // namespace velt::detail
