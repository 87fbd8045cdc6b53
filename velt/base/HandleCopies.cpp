#include "velt/base/HandleCopies.h"

#include <windows.h>

namespace velt::detail {

// A copy takes a few instructions. Sleep lets a thread of lower priority finish it.
void handle_copies::wait() const noexcept {
  for (int tries = 0; under_way != 0; ++tries) ::Sleep(tries < 100 ? 0 : 1);
}

}  // namespace velt::detail
