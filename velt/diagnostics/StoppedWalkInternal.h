// Walks of threads that are stopped for it.
#pragma once

#include <optional>
#include <string>

#include "velt/symbols/SymbolsInternal.h"

namespace velt::detail {

// The thread is stopped, or the calling one. Nothing if its registers cannot be
// read. While other threads are stopped, for holders of process_locks under an
// engine_isolation.
std::optional<short_stack> walk_stopped(void* thread);

// Stops the thread, which must not be the calling one, for the walk; it runs on
// when its text is made. Empty if it has ended. If somebody else has suspended
// it the text is empty, and it stays suspended once more.
std::string text_of_running_thread(void* thread);

}  // namespace velt::detail
