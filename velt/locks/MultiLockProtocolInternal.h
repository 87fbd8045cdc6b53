// The protocol of TMultiLock, shared with TMultiLockWithNotify. A wake-up is only
// a hint: a woken thread examines the state again, from the top of the loop.
#pragma once

#include "velt/locks/MultiLock.h"

template <bool independent, class FirstReader>
bool TMultiLock::acquire_read(unsigned int timeout, _owner_id id,
                              FirstReader const& first_reader) {
  wait_history history;
  for (;; inner_lock_after_wait(id, history)) {
    switch (state) {
      case not_locked:
        first_reader();
        return true;

      case locked_read:
        add_owner(id.reading());
        reset_signal(sig_sole_owner);
        return true;

      case locked_write: {
        // A hold of no thread has no recursion, not even into another such hold.
        auto const own = independent ? share::none : owner_share(id);
        if (own == share::all) {
          add_owner(id.reading());
          inner_unlock();
          return true;
        }
        auto const also = own == share::some ? sig_sole_owner : 0;
        if (!wait_signal(sig_read_open | sig_free | also, id, timeout, history)) return false;
        break;
      }

      default:
        inner_unlock();
        return false;
    }
  }
}

template <bool independent, class FirstWriter, class Upgrader>
bool TMultiLock::acquire_write(unsigned int timeout, _owner_id id,
                               FirstWriter const& first_writer, Upgrader const& upgrader) {
  wait_history history;
  for (;; inner_lock_after_wait(id, history)) {
    if (state == not_locked) {
      first_writer();
      return true;
    }
    if (state != locked_read && state != locked_write) {
      inner_unlock();
      return false;
    }

    bool again;
    switch (independent ? share::none : owner_share(id)) {
      case share::all:
        if (state == locked_read) {
          upgrader();
        } else {
          add_owner(id.writing());
          inner_unlock();
        }
        return true;

      case share::some:
        again = state == locked_read ? wait_to_upgrade(id, timeout, history)
                                     : wait_signal(sig_sole_owner | sig_free, id, timeout, history);
        break;

      default:
        again = wait_signal(sig_free, id, timeout, history);
        break;
    }
    if (!again) return false;
  }
}
