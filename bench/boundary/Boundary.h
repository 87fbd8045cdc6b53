// Functions of another module that are handed a counted handle, as a plug-in or
// a library of objects is: they take a copy of it and release the copy. The
// objects are made there too.
#pragma once

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>

#include "velt/base/SmartPtr.h"

#if defined(BOUNDARY_BUILDING)
#define BOUNDARY_API __declspec(dllexport)
#else
#define BOUNDARY_API __declspec(dllimport)
#endif

namespace bench {

struct VeltObject : virtual SmartPtrObj {
  int payload = 0;
};

struct BoostObject : boost::intrusive_ref_counter<BoostObject, boost::thread_safe_counter> {
  virtual ~BoostObject() = default;
  int payload = 0;
};

BOUNDARY_API SmartPtr<VeltObject> make_velt_object();
BOUNDARY_API boost::intrusive_ptr<BoostObject> make_boost_object();

BOUNDARY_API void copy_and_release(SmartPtr<VeltObject> const& handle);
BOUNDARY_API void copy_and_release(boost::intrusive_ptr<BoostObject> const& handle);

}  // namespace bench
