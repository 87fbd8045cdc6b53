#include "velt/diagnostics/StoppedWalkInternal.h"
#include "velt/threads/ThreadClass.h"

std::string TThreadClass::GetCurrentStack() const {
  return velt::detail::text_of_running_thread(handle);
}
