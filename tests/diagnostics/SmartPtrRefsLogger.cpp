#include "velt/diagnostics/SmartPtrRefsLogger.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>

#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Imports.h"

namespace {

// The engine's walk of one step at a time leads nowhere on this platform: in its
// place stands one that finds what a test says.
std::deque<unsigned __int64> stack;  // of the walk to come, innermost frame first

auto const walk = [](auto, DWORD, HANDLE, HANDLE, STACKFRAME64* frame, auto...) -> BOOL {
  if (stack.empty()) return FALSE;
  frame->AddrPC.Offset = stack.front();
  stack.pop_front();
  return TRUE;
};

}  // namespace

TEST(RefsLogger, GroupsReferencesByTheirStackFewestFirst) {
  velt_test::Replacement const scripted{VELT_CALL(StackWalk64), walk};
  SmartPtrRefsLogger logger;
  ASSERT_TRUE(logger.EnableSmartPtrRefsLogger());
  char references[6];
  auto const add = [&](int reference, std::deque<unsigned __int64> const& frames) {
    stack = frames;
    logger.AddPointerRef(&references[reference]);
  };
  add(0, {90, 91, 92, 1, 2, 3, 4, 5});
  add(1, {93, 94, 95, 1, 2, 6, 7});
  add(2, {90, 91, 92, 8});
  add(3, {90, 91, 92});
  add(4, {90});
  add(5, {});
  add(2, {90, 91, 92, 9});  // the first stack of a reference stays
  std::string const line(76, '-'),
      two = line + "\nReferences: 2\nStack: \n-> !0x4\n-> !0x3\n-> !0x2\n-> !0x1\n",
      three = line + "\nReferences: 3\nStack: \n";
  EXPECT_EQ(logger.GetObjectReferences(nullptr), "Refs: 1, Stack: \n-> !0x8\n" + two + three);
  EXPECT_EQ(logger.GetObjectReferences(&references[2]), two + three);
}

TEST(RefsLogger, CountsTheReferencesOfAllThreads) {
  SmartPtrRefsLogger logger;
  EXPECT_EQ(logger.AddPointerRef(nullptr), 0);
  for (int times = 0; times < 2; ++times) EXPECT_TRUE(logger.EnableSmartPtrRefsLogger());
  static char keys[4][20];
  {
    std::vector<std::jthread> threads;
    for (auto const& own : keys)
      threads.emplace_back([&] {
        for (auto const& each : own) logger.AddPointerRef(&each);
        for (int i = 1; i < 20; ++i) logger.DelPointerRef(&own[i]);
      });
  }
  EXPECT_EQ(logger.AddPointerRef(keys[0]), 4) << "known";
  EXPECT_EQ(logger.DelPointerRef(nullptr), 4) << "unknown";
}
