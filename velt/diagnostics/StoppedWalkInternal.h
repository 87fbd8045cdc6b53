// Stack walks of stopped threads.
#pragma once

#include <optional>
#include <string>

#include "velt/symbols/SymbolsInternal.h"

namespace velt::detail {

// Of a thread that is stopped. Empty if its registers cannot be read. The caller must hold
// process_locks and an engine_isolation.
std::optional<short_stack> walk_stopped(void* thread);

// Stops the thread, which must not be the calling one, for the walk, and resumes it
// before the text is made. Empty if the thread has ended. If other code has suspended
// it, the text is empty, and its suspend count stays one higher.
std::string text_of_running_thread(void* thread);

}  // namespace velt::detail
