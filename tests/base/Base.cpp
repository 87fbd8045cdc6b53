// Counted objects and views.
#include "velt/base/SmartPtr.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "velt/base/ConstArray.h"
#include "velt/base/ConstString.h"

static_assert(offsetof(basic_const_string<char>, data) == 0);
static_assert(offsetof(basic_const_string<char>, length) == 8);
static_assert(offsetof(const_array<int>, count) == 0);
static_assert(offsetof(const_array<int>, data) == 8);

namespace {

// Counts the objects that are alive.
struct Probe : virtual SmartPtrObj {
  Probe() { ++alive; }
  Probe(Probe const& other) : SmartPtrObj(other) { ++alive; }
  Probe& operator=(Probe const&) = default;
  ~Probe() override { --alive; }
  int count() const { return refs.value(); }

  static inline std::atomic<int> alive = 0;
};

}  // namespace

TEST(SmartPtr, AssigningAnObjectThatOnlyTheOldOneKeepsAliveIsSafe) {
  struct Node : Probe {
    SmartPtr<Node> next;
  };
  SmartPtr<Node> head(new Node);
  head->next = new Node;
  head = head->next;
  EXPECT_EQ(Probe::alive, 1);
  EXPECT_EQ(head->count(), 1);
}

TEST(SmartPtr, IsNullForTheDestructorOfItsObject) {
  static SmartPtr<SmartPtrObj>* handle;
  static bool found;
  struct Curious : SmartPtrObj {
    ~Curious() override { found = static_cast<bool>(*handle); }
  };
  for (bool const reset : {false, true}) {
    SmartPtr<SmartPtrObj> own(new Curious);
    handle = &own;
    found = true;
    reset ? own.reset() : own.~SmartPtr();
    EXPECT_FALSE(found);
  }
}

TEST(SmartPtr, CopiedObjectStartsWithoutReferencesAndAssignedOneTakesTheCount) {
  SmartPtr<Probe> first(new Probe), second = first;
  Probe copy(*first);
  EXPECT_EQ(copy.count(), 0);
  copy = *first;
  EXPECT_EQ(copy.count(), 2);
  SmartPtr<const SmartPtrObj> const constant = first;
  EXPECT_EQ(first.use_count(), 3);
  EXPECT_EQ(first, constant);
  static_assert(!std::is_convertible_v<SmartPtr<const SmartPtrObj>, SmartPtr<SmartPtrObj>>);
}

TEST(SmartPtr, MoveLeavesTheSourceNullAndTheCountAsItWas) {
  auto first = MakeCounted<Probe>();
  SmartPtr<Probe> second = std::move(first);
  EXPECT_FALSE(first);
  first = std::move(second);
  auto& same = first;
  first = std::move(same);
  first = same;
  first = first.get();
  EXPECT_EQ(first->count(), 1) << "assignment to itself";
}

TEST(SmartPtr, DescribesTypeAndLowHalfOfTheAddress) {
  SmartPtr<SmartPtrObj> const object = MakeCounted<Probe>();
  char expected[64];
  auto const address = static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(object.get()));
  snprintf(expected, sizeof expected, "Probe {0x%x}", address);
  EXPECT_TRUE(object->describe().ends_with(expected)) << object->describe();
}

TEST(SmartPtr, ManyThreadsMayAssignToOneHandle) {
  SmartPtr<Probe> shared;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i)
      threads.emplace_back([&shared] {
        for (int n = 0; n < 20'000; ++n) shared = n % 7 ? new Probe : nullptr;
      });
  }
  shared.reset();
  EXPECT_EQ(Probe::alive, 0);
}

TEST(ConstString, CountsTheCharactersInFrontOfTheEnd) {
  std::string const text("abc\0def", 7);
  EXPECT_EQ(basic_const_string<char>(text).c_str(), text.data());
  EXPECT_EQ(basic_const_string<char>(text).length, 7u);
  EXPECT_EQ(basic_const_string<char>("abc").length, 3u);
}
