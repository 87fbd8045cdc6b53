// Lets a thread copy a handle while other threads replace it, which SmartPtr
// alone does not allow.
#pragma once

#include <atomic>
#include <utility>

#include "velt/base/Export.h"
#include "velt/base/SmartPtr.h"

namespace velt::detail {

// Lies beside the handle. Copying takes no lock and never waits, so that a thread
// that is stopped or killed keeps nobody from copying. Replacing the object waits
// for copies in progress, then releases the old one.
class VELT_API handle_copies {
public:
  template <class T>
  SmartPtr<T> copy(SmartPtr<T> const& handle) noexcept {
    ++under_way;
    SmartPtr<T> result(handle);
    --under_way;
    return result;
  }

  template <class T>
  void replace(SmartPtr<T>& handle, SmartPtr<T> object) noexcept {
    SmartPtr<T> const old = handle.exchange(std::move(object));
    if (under_way != 0) wait();
  }

private:
  void wait() const noexcept;

  std::atomic<int> under_way = 0;
};

}  // namespace velt::detail
