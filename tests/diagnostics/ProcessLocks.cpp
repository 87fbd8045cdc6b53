#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>

#include "tests/diagnostics/Fakes.h"
#include "velt/diagnostics/ProcessLocksInternal.h"

using velt::detail::FindHeapLockSection;
using velt::detail::HeapLockGuard;
using velt_test::fakes;
using velt_test::Fresh;

namespace {

void put(std::size_t offset, void const* address) {
  auto const word = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(address));
  std::memcpy(velt_test::heap_header + offset, &word, sizeof word);
}

constexpr std::size_t page = 0x1000;

class FindHeapLock : public testing::Test {
protected:
  FindHeapLock() {
    std::memcpy(before, velt_test::heap_header, sizeof before);
    for (std::uintptr_t at = 0x30000000; !pages; at += 0x100000)
      pages = static_cast<std::byte*>(
          VirtualAlloc(reinterpret_cast<void*>(at), 2 * page, MEM_RESERVE, PAGE_READWRITE));
    VirtualAlloc(pages, page, MEM_COMMIT, PAGE_READWRITE);
    section = pages + page - sizeof(CRITICAL_SECTION);
    set_owner(GetCurrentThreadId());
  }
  ~FindHeapLock() override {
    VirtualFree(pages, 0, MEM_RELEASE);
    std::memcpy(velt_test::heap_header, before, sizeof before);
  }

  void set_owner(DWORD id) {
    reinterpret_cast<CRITICAL_SECTION*>(section)->OwningThread = ULongToHandle(id);
  }
  // Whether the section is found at the offset in a header of nothing else.
  static bool finds(void const* address, std::size_t offset = 300) {
    std::memset(velt_test::heap_header, 0, sizeof velt_test::heap_header);
    put(offset, address);
    return static_cast<void*>(FindHeapLockSection()) == address;
  }

  // That the calling thread seems to hold, at the end of writable memory below
  // 4 GB that is followed by a page that is not.
  std::byte* section;
  std::byte* pages = nullptr;

private:
  Fresh const fresh;
  std::byte before[sizeof velt_test::heap_header];
};

bool takes_heap() {
  fakes().calls.clear();
  return HeapLockGuard().held();
}

}  // namespace

TEST_F(FindHeapLock, TakesOnlyASectionInTheHeaderThatThisThreadHolds) {
  for (std::size_t const offset : {92u, 96u, 300u, 540u, 544u})
    EXPECT_EQ(finds(section, offset), offset >= 96 && offset <= 540) << offset;
  EXPECT_EQ(fakes().calls, "heap ~heap heap ~heap heap ~heap heap ~heap heap ~heap");

  EXPECT_FALSE(finds(section + 4)) << "reaches out of its memory";
  set_owner(GetCurrentThreadId() + 1);
  EXPECT_FALSE(finds(section));
  set_owner(GetCurrentThreadId());
  fakes().heap_locks = false;
  EXPECT_FALSE(finds(section));
  fakes().heap_locks = true;
  for (DWORD const protection : {PAGE_READONLY, PAGE_READWRITE | PAGE_GUARD}) {
    DWORD old;
    VirtualProtect(pages, page, protection, &old);
    EXPECT_FALSE(finds(section)) << protection;
  }
}

TEST(HeapLockGuard, AsksTheHeapWhetherOrNotTheSectionIsFree) {
  Fresh const fresh;
  EXPECT_TRUE(takes_heap());
  EXPECT_EQ(fakes().calls, "heap ~heap");
  fakes().heap_locks = false;
  EXPECT_TRUE(takes_heap()) << "the section was free, which is enough";

  velt_test::let_another_thread_take_heap_section();
  EXPECT_FALSE(takes_heap()) << "now the heap decides";
  EXPECT_EQ(fakes().calls, "heap");
  fakes().heap_locks = true;
  EXPECT_TRUE(takes_heap());
  EXPECT_EQ(fakes().calls, "heap ~heap");
}
