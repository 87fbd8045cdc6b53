#include "bench/boundary/Boundary.h"

#include "bench/Harness.h"

namespace bench {

SmartPtr<VeltObject> make_velt_object() { return MakeCounted<VeltObject>(); }

boost::intrusive_ptr<BoostObject> make_boost_object() { return new BoostObject; }

void copy_and_release(SmartPtr<VeltObject> const& handle) {
  auto const copy = handle;
  keep(copy);
}

void copy_and_release(boost::intrusive_ptr<BoostObject> const& handle) {
  auto const copy = handle;
  keep(copy);
}

std::string int_to_text(int number) { return std::to_string(number); }

void BoostUpgradeLock::read() { mutex.lock_upgrade(); }
void BoostUpgradeLock::upgrade() { mutex.unlock_upgrade_and_lock(); }
void BoostUpgradeLock::end_upgrade() { mutex.unlock_and_lock_upgrade(); }
void BoostUpgradeLock::end_read() { mutex.unlock_upgrade(); }

}  // namespace bench
