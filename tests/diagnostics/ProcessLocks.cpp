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

bool takes_heap() {
  fakes().calls.clear();
  return HeapLockGuard().held();
}

}  // namespace

TEST(FindHeapLockSection, TakesOnlyASectionInTheHeaderThatThisThreadHolds) {
  Fresh const fresh;
  auto& header = velt_test::heap_header;
  auto const section = velt_test::heap_section();
  std::uint32_t const word = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(section));
  auto const finds = [&](std::size_t offset, std::uint32_t address) {
    std::memset(header, 0, sizeof header);
    std::memcpy(header + offset, &address, sizeof address);
    auto const found = reinterpret_cast<std::uintptr_t>(FindHeapLockSection());
    EXPECT_TRUE(found == 0 || found == address);
    return found != 0;
  };
  section->OwningThread = ULongToHandle(GetCurrentThreadId());
  for (std::size_t const offset : {92u, 96u, 300u, 544u})
    EXPECT_EQ(finds(offset, word), offset >= 96 && offset <= 540) << offset;
  fakes().heap_locks = false;
  EXPECT_FALSE(finds(540, word));
  fakes().heap_locks = true;

  constexpr std::uint32_t last = 0x1000 - sizeof(CRITICAL_SECTION);
  for (std::uint32_t const offset : {last, last + 4}) {
    auto const bytes = reinterpret_cast<std::byte*>(section) + offset;
    reinterpret_cast<CRITICAL_SECTION*>(bytes)->OwningThread = ULongToHandle(GetCurrentThreadId());
    EXPECT_EQ(finds(540, word + offset), offset == last) << "reaches out of its memory";
  }
  DWORD old;
  for (DWORD const protection : {PAGE_READONLY, PAGE_READWRITE | PAGE_GUARD}) {
    VirtualProtect(section, 1, protection, &old);
    EXPECT_FALSE(finds(540, word)) << protection;
  }
  VirtualProtect(section, 1, PAGE_READWRITE, &old);
  section->OwningThread = ULongToHandle(GetCurrentThreadId() + 1);
  EXPECT_FALSE(finds(540, word));
  section->OwningThread = ULongToHandle(GetCurrentThreadId());
  EXPECT_TRUE(finds(540, word)) << "for the tests to come";
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
