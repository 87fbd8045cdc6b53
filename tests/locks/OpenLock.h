#pragma once

#include "velt/locks/MultiLock.h"

namespace velt_test {

// A lock whose inner lock a test can reach.
struct OpenLock : TMultiLock {
  void hold_inner() { inner_lock(own_id()); }
  void let_inner_go() { inner_unlock(); }

  // Ends the only hold up to the moment at which the inner lock would be
  // released: the waiter that is woken finds it taken.
  void unlock_and_keep_inner() {
    inner_lock(own_id());
    remove_owner(own_id());
    state = not_locked;
    raise(sig_free);
  }
};

}  // namespace velt_test
