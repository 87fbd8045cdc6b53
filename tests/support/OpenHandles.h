// Counts the kernel handles of this process, to show that none is lost.
#pragma once

#include <windows.h>

namespace velt_test {

// Handles are multiples of four, and the platform gives out low numbers again, so there
// is none behind a long gap. Wine's own count is 0, and its server may break down if one
// program lists all handles while another starts or ends.
inline long open_handles() {
  constexpr int long_gap = 500;
  long count = 0;
  int gap = 0;
  for (ULONG_PTR number = 4; gap < long_gap; number += 4) {
    DWORD flags;
    bool const is_open = GetHandleInformation(reinterpret_cast<HANDLE>(number), &flags);
    count += is_open;
    gap = is_open ? 0 : gap + 1;
  }
  return count;
}

// Whether that many are left, soon: the platform closes the last ones of a thread
// that has ended when it finds the time.
inline bool open_handles_fall_to(long count) {
  for (int tries = 0; tries < 200; ++tries, Sleep(10))
    if (open_handles() <= count) return true;
  return false;
}

}  // namespace velt_test
