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

// Words of the heap's header.
class Header {
public:
  Header() { std::memcpy(before, velt_test::heap_header, sizeof before); }
  ~Header() { std::memcpy(velt_test::heap_header, before, sizeof before); }

  void put(std::size_t offset, void const* address) {
    auto const word = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(address));
    std::memcpy(velt_test::heap_header + offset, &word, sizeof word);
  }
  void clear() { std::memset(velt_test::heap_header, 0, sizeof velt_test::heap_header); }

private:
  std::byte before[sizeof velt_test::heap_header];
};

// A section that the calling thread seems to hold, at the end of writable memory
// below 4 GB that is followed by a page that is not.
class Candidate {
public:
  Candidate() {
    for (std::uintptr_t at = 0x30000000; !pages; at += 0x100000)
      pages = static_cast<std::byte*>(
          VirtualAlloc(reinterpret_cast<void*>(at), 2 * page, MEM_RESERVE, PAGE_READWRITE));
    VirtualAlloc(pages, page, MEM_COMMIT, PAGE_READWRITE);
    set_owner(GetCurrentThreadId());
  }
  ~Candidate() { VirtualFree(pages, 0, MEM_RELEASE); }

  std::byte* address() const { return pages + page - sizeof(CRITICAL_SECTION); }
  void set_owner(DWORD id) {
    reinterpret_cast<CRITICAL_SECTION*>(address())->OwningThread = ULongToHandle(id);
  }
  void protect(DWORD protection) {
    DWORD old;
    VirtualProtect(pages, page, protection, &old);
  }

private:
  static constexpr std::size_t page = 0x1000;
  std::byte* pages = nullptr;
};

}  // namespace

TEST(FindHeapLockSection, LooksAtAddressesOf32BitsInTheHeader) {
  Fresh const fresh;
  Header header;
  Candidate const candidate;
  for (std::size_t const offset : {92u, 96u, 300u, 540u, 544u}) {
    header.clear();
    header.put(offset, candidate.address());
    bool const within = offset >= 96 && offset <= 540;
    EXPECT_EQ(static_cast<void*>(FindHeapLockSection()), within ? candidate.address() : nullptr)
        << offset;
  }
  EXPECT_EQ(fakes().calls, "heap ~heap heap ~heap heap ~heap heap ~heap heap ~heap");

  fakes().heap_locks = false;
  header.put(300, candidate.address());
  EXPECT_EQ(FindHeapLockSection(), nullptr);
}

TEST(FindHeapLockSection, TakesOnlyASectionThatThisThreadHolds) {
  Fresh const fresh;
  Header header;
  Candidate candidate;
  header.clear();
  header.put(300, candidate.address());
  ASSERT_NE(FindHeapLockSection(), nullptr);

  candidate.set_owner(GetCurrentThreadId() + 1);
  EXPECT_EQ(FindHeapLockSection(), nullptr);
  candidate.set_owner(GetCurrentThreadId());

  header.put(300, candidate.address() + 4);
  EXPECT_EQ(FindHeapLockSection(), nullptr) << "reaches out of its memory";
  header.put(300, candidate.address());

  for (DWORD const protection : {PAGE_READONLY, PAGE_READWRITE | PAGE_GUARD}) {
    candidate.protect(protection);
    EXPECT_EQ(FindHeapLockSection(), nullptr) << protection;
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
