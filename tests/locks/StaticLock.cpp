#include "tests/locks/StaticLock.h"

#include "tests/locks/OpenLock.h"

static velt_test::OpenLock lock;

void hold_inner_word_of_static_lock() {
  for (int i = 0; i < 3; ++i) lock.ReadLock();  // the third moves the records to the heap
  lock.hold_inner();
}
