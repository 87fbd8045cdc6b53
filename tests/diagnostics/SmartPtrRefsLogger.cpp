// Above fakes, whose walk finds what a test says: on this platform the real one
// leads nowhere.
#include "velt/diagnostics/SmartPtrRefsLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/diagnostics/Fakes.h"
#include "velt/symbols/SymbolsInternal.h"

using testing::ElementsAre;
using testing::HasSubstr;
using velt_test::fakes;

namespace {

using address = unsigned __int64;
constexpr std::nullopt_t fails = std::nullopt;

// What the steps of the walks to come find; at the end they fail.
std::vector<std::optional<address>> steps;
std::vector<address> ensured;
std::size_t walked;
STACKFRAME64 first_frame;
address in_slot;  // that the return address of the call should be in

struct RefsLogger : testing::Test {
  RefsLogger() {
    steps.clear();
    ensured.clear();
    walked = 0;
    EXPECT_TRUE(logger.EnableSmartPtrRefsLogger());
  }

  // References taken with these frames, innermost first, behind the three that are
  // left out.
  void add(void const* reference, std::vector<address> const& frames) {
    steps.assign(3, 0xCCC);
    steps.insert(steps.end(), frames.begin(), frames.end());
    walked = 0;
    logger.AddPointerRef(reference);
  }
  std::string report() const { return logger.GetObjectReferences(nullptr); }

  velt_test::Fresh fresh;
  SmartPtrRefsLogger logger;
  char references[8];
};

[[gnu::noipa]] long take_reference(SmartPtrRefsLogger const& logger, void const* reference) {
  return logger.AddPointerRef(reference) + 1;
}

std::string block(int count, std::string const& stack) {
  return std::string(76, '-') + "\nReferences: " + std::to_string(count) + "\nStack: " + stack +
         "\n";
}

}  // namespace

bool EnsureModuleSymbolsLoaded(address where) {
  ensured.push_back(where);
  return false;
}

bool velt::detail::StackWalkStep(_tagSTACKFRAME64* frame, _CONTEXT* context, void* thread) {
  EXPECT_EQ(context, nullptr);
  EXPECT_EQ(thread, GetCurrentThread());
  if (walked == 0) {
    first_frame = *frame;
    in_slot = *reinterpret_cast<address*>(frame->AddrFrame.Offset + 8);
  }
  auto const found = walked < steps.size() ? steps[walked] : fails;
  ++walked;
  if (found) frame->AddrPC.Offset = *found;
  return found.has_value();
}

TEST_F(RefsLogger, CountsDistinctReferences) {
  EXPECT_EQ(logger.AddPointerRef(&references[0]), 1);
  EXPECT_EQ(logger.AddPointerRef(&references[1]), 2);
  EXPECT_EQ(logger.AddPointerRef(&references[0]), 2);
  EXPECT_EQ(logger.DelPointerRef(&references[5]), 2);
  EXPECT_EQ(logger.DelPointerRef(&references[0]), 1);
  EXPECT_EQ(logger.DelPointerRef(&references[0]), 1);
}

TEST_F(RefsLogger, WalkBeginsAtTheCaller) {
  take_reference(logger, references);
  auto const& frame = first_frame;
  auto const caller = reinterpret_cast<address>(&take_reference);
  EXPECT_LE(frame.AddrPC.Offset - caller, 100u);
  EXPECT_EQ(in_slot, frame.AddrPC.Offset);
  EXPECT_EQ(frame.AddrStack.Offset, 0u);
}

TEST_F(RefsLogger, ThreeFramesAreLeftOutAndFourKept) {
  steps = {11, 12, 13, 1, 2, 3, 4, 5};
  logger.AddPointerRef(references);
  EXPECT_EQ(walked, 7u);
  EXPECT_EQ(report(), block(1, "stack of 1 2 3 4"));
  EXPECT_THAT(ensured, ElementsAre(first_frame.AddrPC.Offset, 11, 12, 13, 1, 2, 3));
}

TEST_F(RefsLogger, OnlyAFailureOfTheThirdStepEndsTheWalk) {
  steps = {fails, fails, 13, 1, 2, fails};
  logger.AddPointerRef(references);
  EXPECT_EQ(report(), block(1, "stack of 1 2"));
  auto const caller = first_frame.AddrPC.Offset;
  EXPECT_THAT(ensured, ElementsAre(caller, 13, 1, 2));

  walked = 0;
  steps = {11, fails, fails, 1};
  logger.DelPointerRef(references);
  logger.AddPointerRef(references);
  EXPECT_EQ(walked, 3u);
  EXPECT_EQ(report(), block(1, "stack of"));
}

TEST_F(RefsLogger, GroupsGoFromTheFewToTheMany) {
  add(&references[0], {1, 2});
  add(&references[1], {1, 2});
  add(&references[2], {1, 2});
  add(&references[3], {9});
  add(&references[4], {5, 6, 7, 8});
  add(&references[5], {5, 6, 7, 8});
  EXPECT_EQ(report(), "Refs: 1, Stack: stack of 9\n" + block(2, "stack of 5 6 7 8") +
                          block(3, "stack of 1 2"));
  add(&references[3], {2});  // the first stack of a reference stays
  EXPECT_EQ(logger.GetObjectReferences(&references[3]),
            block(2, "stack of 5 6 7 8") + block(3, "stack of 1 2"));
}

TEST_F(RefsLogger, StacksThatAgreeInTheFirstHalfAreOne) {
  constexpr address high = 0x7FFF'0000'0000;
  add(&references[2], {1, 2, 33, 44});
  add(&references[0], {1, 2, 3, 4});
  add(&references[1], {high + 5, 6});
  add(&references[3], {high + 5, 7});
  add(&references[4], {5});
  add(&references[5], {high + 5});
  // Of three frames one and a half.
  add(&references[6], {1, high + 2, 3});
  add(&references[7], {1, 2, 3});
  auto const text = report();
  EXPECT_THAT(text, HasSubstr(block(2, "stack of 1 2 3 4")));
  EXPECT_THAT(text, HasSubstr(block(2, "stack of 140733193388037 6")));
  EXPECT_THAT(text, HasSubstr("Refs: 2, Stack: stack of 5\n"));
  EXPECT_THAT(text, HasSubstr(block(2, "stack of 1 140733193388034 3")));
}

TEST_F(RefsLogger, HoldsTheEngineFromItsEnablingToItsEnd) {
  {
    SmartPtrRefsLogger other;
    EXPECT_EQ(fakes().holds, 1);
    fakes().engine_is_there = false;
    EXPECT_FALSE(other.EnableSmartPtrRefsLogger());
    EXPECT_EQ(other.AddPointerRef(references), 0);
    EXPECT_EQ(other.DelPointerRef(references), 0);
    EXPECT_EQ(other.GetObjectReferences(nullptr), "");
    EXPECT_EQ(walked, 0u);
    fakes().engine_is_there = true;
    EXPECT_TRUE(other.EnableSmartPtrRefsLogger());
    EXPECT_TRUE(other.EnableSmartPtrRefsLogger());
    EXPECT_EQ(fakes().holds, 2);
  }
  EXPECT_EQ(fakes().holds, 1);
}

TEST_F(RefsLogger, CopyHasTheReferencesButNoHoldOfItsOwn) {
  add(&references[0], {1});
  {
    SmartPtrRefsLogger copy(logger);
    EXPECT_EQ(copy.AddPointerRef(&references[1]), 2);
    EXPECT_EQ(logger.AddPointerRef(&references[0]), 1);
    EXPECT_EQ(fakes().holds, 1);
  }
  EXPECT_EQ(fakes().holds, 0);
  fakes().holds = 1;
}

TEST_F(RefsLogger, ThreadsShareIt) {
  static char keys[4][500];
  std::vector<std::jthread> threads;
  for (auto const& own : keys)
    threads.emplace_back([&] {
      for (auto const& each : own) logger.AddPointerRef(&each);
      for (auto const& each : own)
        if (&each != own) logger.DelPointerRef(&each);
    });
  threads.clear();
  EXPECT_EQ(logger.DelPointerRef(nullptr), 4);
}
