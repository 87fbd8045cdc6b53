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

}  // namespace bench
