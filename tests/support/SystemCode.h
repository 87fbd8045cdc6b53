// The code with which a statement fails.
#pragma once

#include "velt/exceptions/ExceptionFamily.h"

namespace velt_test {

// The "Code" of the ESystemException that the statement throws, or -1 if it
// throws none.
template <class Statement>
int system_code(Statement const& statement) {
  try {
    statement();
  } catch (ESystemException const& error) {
    return error["Code"].as_int();
  }
  return -1;
}

}  // namespace velt_test
