#pragma once

#include "velt/locks/MultiLock.h"

namespace velt_test {

// A lock whose inner lock a test can reach.
template <class Lock>
struct Opened : Lock {
  void hold_inner() { this->inner_lock(this->own_id()); }
  void let_inner_go() { this->inner_unlock(); }

  // Nobody is inside, and the state does not fit the holds.
  bool is_torn() {
    if (!this->try_inner_lock({1})) return false;
    bool const fits = (this->state == this->not_locked) == (this->owner_count() == 0) &&
                      (this->state == this->locked_read) == this->no_write_owner();
    this->inner_unlock();
    return !fits;
  }

  // Ends the only hold up to the moment at which the inner lock would be
  // released: the waiter that is woken finds it taken.
  void unlock_and_keep_inner() {
    hold_inner();
    this->remove_owner(this->own_id());
    this->state = this->not_locked;
    this->raise(this->sig_free);
  }
};
using OpenLock = Opened<TMultiLock>;

}  // namespace velt_test
