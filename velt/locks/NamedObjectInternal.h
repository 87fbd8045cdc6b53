// Making kernel objects: the security of those with names, and the check of what
// the platform answers.
#pragma once

#include <windows.h>

#include "velt/exceptions/ExceptionFamily.h"

namespace velt::detail {

enum class access_list {
  absent,  // the creator's default
  open,    // present and null: everybody may do everything
};

// Attributes for making a named object; not inherited by child processes.
class named_object_security {
public:
  explicit named_object_security(access_list list) {
    InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    if (list == access_list::open) descriptor.Control |= SE_DACL_PRESENT;
  }
  named_object_security(named_object_security const&) = delete;

  operator SECURITY_ATTRIBUTES*() { return &attributes; }

private:
  SECURITY_DESCRIPTOR descriptor;
  SECURITY_ATTRIBUTES attributes = {sizeof attributes, &descriptor, FALSE};
};

// Calls one of the platform's makers: they take the attributes first, then what
// this kind of object needs, then the name.
template <class Maker, class Char, class... Arguments>
HANDLE make_named(Maker maker, access_list list, Char const* name, Arguments... arguments) {
  named_object_security security(list);
  return maker(security, arguments..., name);
}

// Stores what a call that makes or opens an object answers; null throws.
inline void store_or_throw(void*& handle, HANDLE answer) {
  handle = answer;
  if (!answer) ThrowSystemException();
}

}  // namespace velt::detail
