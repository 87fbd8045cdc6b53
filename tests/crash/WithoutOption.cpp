#include "tests/crash/Crash.h"

namespace crash {

int read_without_the_option(int const volatile* address) {
  Note const note;
  int const value = *address;
  nothing();
  return value;
}

}  // namespace crash
