// Functions of another module: what a peer costs that is no header.
#pragma once

#include <string>

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>
#include <boost/thread/shared_mutex.hpp>

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

// They take a copy of a counted handle and release it, as a plug-in or a library of
// objects does. The objects are made there too.
BOUNDARY_API SmartPtr<VeltObject> make_velt_object();
BOUNDARY_API boost::intrusive_ptr<BoostObject> make_boost_object();

BOUNDARY_API void copy_and_release(SmartPtr<VeltObject> const& handle);
BOUNDARY_API void copy_and_release(boost::intrusive_ptr<BoostObject> const& handle);

BOUNDARY_API std::string int_to_text(int number);

// A lock of virtual functions around that of the peer.
class BOUNDARY_API BoostUpgradeLock {
public:
  virtual ~BoostUpgradeLock() = default;
  virtual void read();
  virtual void upgrade();
  virtual void end_upgrade();
  virtual void end_read();

private:
  boost::upgrade_mutex mutex;
};

}  // namespace bench
