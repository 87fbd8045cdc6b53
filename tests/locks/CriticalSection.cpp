#include "velt/locks/CriticalSection.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <thread>

#include "velt/exceptions/ExceptionFamily.h"

namespace {

// Asks from another thread, through the platform's own call.
bool is_free(TCriticalSection& section) {
  bool result = false;
  std::thread([&] {
    result = TryEnterCriticalSection(&section);
    if (result) LeaveCriticalSection(&section);
  }).join();
  return result;
}

}  // namespace

TEST(CriticalSection, KeepsOtherThreadsOutUntilEveryLockIsUndone) {
  TCriticalSection section;
  section.Lock();
  section.Lock();
  EXPECT_FALSE(is_free(section));
  section.Unlock();
  EXPECT_FALSE(is_free(section));
  section.Unlock();
  EXPECT_TRUE(is_free(section));
}

TEST(CriticalSection, TimedLockIsNotImplementedEvenIfFree) {
  TCriticalSection section;
  for (unsigned int const timeout : {0u, 10u, 0xFFFFFFFFu}) {
    try {
      TLock guard(section, timeout);
      ADD_FAILURE() << "nothing was thrown";
    } catch (ENotImplemented const& e) {
      EXPECT_STREQ(e.what(),
                   "Text: Not implemented\nSourceFile: CriticalSection\n"
                   "SourceLine: 18 (0x12)\nFunction: TCriticalSection::Lock");
    }
  }
  EXPECT_TRUE(is_free(section));
}
