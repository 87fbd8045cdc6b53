// Keeps the thread's last error over code that may run between a failed call and
// the question for its error.
#pragma once

#include <windows.h>

namespace velt::detail {

// Restores, at its end, the last error that it found.
class last_error_keeper {
public:
  last_error_keeper() noexcept = default;
  ~last_error_keeper() { SetLastError(error); }
  last_error_keeper(last_error_keeper const&) = delete;
  last_error_keeper& operator=(last_error_keeper const&) = delete;

private:
  DWORD const error = GetLastError();
};

}  // namespace velt::detail
