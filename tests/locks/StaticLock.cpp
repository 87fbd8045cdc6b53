// A DLL with a static lock. It is destroyed after the platform has ended all other
// threads of the process.
#include "tests/locks/OpenLock.h"

static velt_test::OpenLock lock;

// And never lets it go.
extern "C" __declspec(dllexport) void hold_inner_word_of_static_lock() {
  for (int i = 0; i < 3; ++i) lock.ReadLock();  // the third moves the records to the heap
  lock.hold_inner();
}
