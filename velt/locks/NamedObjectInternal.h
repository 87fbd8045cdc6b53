// What the classes of named kernel objects share: the security that they are
// made with, and the check of what the platform answers.
#pragma once

#include <windows.h>

#include "velt/base/CheckInternal.h"
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

// Stores what a call that makes or opens an object answers; null throws.
inline void store_or_throw(void*& handle, HANDLE answer) {
  handle = answer;
  check(answer);
}

}  // namespace velt::detail
