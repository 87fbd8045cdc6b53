#include "velt/base/SmartPtr.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

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
  struct Curious : virtual SmartPtrObj {
    SmartPtr<Curious>* own = nullptr;
    bool* found_itself = nullptr;
    ~Curious() override { *found_itself = static_cast<bool>(*own); }
  };
  bool found_itself = true;
  {
    SmartPtr<Curious> const handle(new Curious);
    handle->own = const_cast<SmartPtr<Curious>*>(&handle);
    handle->found_itself = &found_itself;
  }
  EXPECT_FALSE(found_itself);
}

TEST(SmartPtr, CopiedObjectStartsWithoutReferencesAndAssignedOneTakesTheCount) {
  SmartPtr<Probe> first(new Probe), second = first;
  Probe copy(*first);
  EXPECT_EQ(copy.count(), 0);
  copy = *first;
  EXPECT_EQ(copy.count(), 2);
}

TEST(SmartPtr, ConstHandleOfAnObjectTakesAFurtherReference) {
  SmartPtr<SmartPtrObj> object(new Probe);
  SmartPtr<const SmartPtrObj> constant = object;
  EXPECT_EQ(object.use_count(), 2);
  EXPECT_EQ(object, constant);
  static_assert(!std::is_convertible_v<SmartPtr<const SmartPtrObj>, SmartPtr<SmartPtrObj>>);
}

TEST(SmartPtr, MoveLeavesTheSourceNullAndTheCountAsItWas) {
  auto first = MakeCounted<Probe>();
  SmartPtr<Probe> second = std::move(first);
  EXPECT_FALSE(first);
  EXPECT_EQ(second->count(), 1);
  first = std::move(second);
  EXPECT_EQ(first->count(), 1);
  auto& same = first;
  first = std::move(same);
  first = same;
  first = first.get();
  EXPECT_EQ(first->count(), 1) << "assignment to itself";
}

TEST(SmartPtr, DescribesTypeAndLowHalfOfTheAddress) {
  auto const object = MakeCounted<Probe>();
  char expected[64];
  auto const address = reinterpret_cast<std::uintptr_t>(
      static_cast<SmartPtrObj const*>(object.get()));
  snprintf(expected, sizeof expected, " {0x%x}", static_cast<unsigned>(address));
  auto const text = object->describe();
  EXPECT_NE(text.find("Probe"), std::string::npos) << text;
  EXPECT_TRUE(text.ends_with(expected)) << text;
}

TEST(SmartPtr, ManyThreadsMayAssignToOneHandle) {
  SmartPtr<Probe> shared;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i)
      threads.emplace_back([&shared] {
        for (int n = 0; n < 20'000; ++n) {
          if (n % 7 == 0)
            shared.reset();
          else
            shared = new Probe;
        }
      });
  }
  shared.reset();
  EXPECT_EQ(Probe::alive, 0);
}
