#include "velt/locks/CriticalSection.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <new>
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
      EXPECT_EQ(e["Text"].as_string(), "Not implemented");
      EXPECT_EQ(e["SourceFile"].as_string(), "CriticalSection");
      EXPECT_EQ(e["SourceLine"].as_int(), 18);
      EXPECT_EQ(e["Function"].as_string(), "TCriticalSection::Lock");
    }
  }
  EXPECT_TRUE(is_free(section));
}

TEST(CriticalSection, CopyIsAnAliasOfTheState) {
  TCriticalSection section;
  section.Lock();
  // Never destroyed: the record belongs to the original.
  alignas(TCriticalSection) unsigned char place[sizeof(TCriticalSection)];
  auto const copy = new (place) TCriticalSection(section);
  CRITICAL_SECTION const& original_record = section;
  CRITICAL_SECTION const& copied_record = *copy;
  EXPECT_EQ(std::memcmp(&original_record, &copied_record, sizeof original_record), 0);
  copy->Unlock();
  section = *copy;
  EXPECT_TRUE(is_free(section));
}
