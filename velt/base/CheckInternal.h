// The check of what a call of the platform answers.
#pragma once

#include "velt/exceptions/ExceptionFamily.h"

namespace velt::detail {

// Answers `result`. One that is false, null or 0 throws ESystemException for the
// thread's last error.
template <class Result>
Result check(Result result) {
  if (!result) ThrowSystemException();
  return result;
}

}  // namespace velt::detail
