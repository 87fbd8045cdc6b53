#include "velt/faults/StackOverflowException.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/faults/Scenarios.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/SkippedValues.h"
#include "velt/debug/DebugStream.h"
#include "velt/diagnostics/Settings.h"
#include "velt/locks/Event.h"
#include "velt/threads/ThreadClass.h"
#include "velt/value/HolderCacheInternal.h"

using velt_test::Recursion;

namespace {

// Runs the body on a thread of its own. A thread for which the stack did not suffice
// has said nothing.
class Overflowing final : public TThreadClass {
public:
  explicit Overflowing(std::function<std::string()> its_body) : body(std::move(its_body)) {
    StartThread();
  }

  std::string result() {
    if (WaitForSingleObject(60'000, FALSE) == WAIT_OBJECT_0) return said;
    std::puts("A thread waits for ever.");
    std::_Exit(1);
  }

  void ThreadBody() override { said = body(); }

private:
  std::function<std::string()> const body;
  std::string said = "the thread is gone";
};

auto const builds = velt_test::all_builds();

Recursion const& ordinary_recursion = builds[2].recursions[1];

ULONG_PTR overflow;  // the first one's place on the stack
std::atomic<int> overflows, recoveries;

std::string recover(Recursion const& recursion) {
  try {
    recursion.run(1);
    return "returned";
  } catch (EStackOverflowException& error) {
    if (std::string(error["Text"]) != "Stack Overflow") return error.what();
    ++recoveries;
  }
  return EStackOverflowException::ResetStack() ? "recovered" : "not reset";
}

// Each time the stack runs out at another place.
std::string recover_often(Recursion const& recursion) {
  std::string last = "recovered";
  for (int i = 0; i < recursion.overflows && last == "recovered"; ++i) {
    *static_cast<char volatile*>(__builtin_alloca(16 * 23)) = 1;
    last = recover(recursion);
  }
  return last;
}

LONG CALLBACK note_overflow(EXCEPTION_POINTERS* pointers) {
  if (pointers->ExceptionRecord->ExceptionCode == EXCEPTION_STACK_OVERFLOW && ++overflows == 1)
    overflow = pointers->ContextRecord->Rsp & ~ULONG_PTR{7};
  return EXCEPTION_CONTINUE_SEARCH;
}

// How much of the stack below the overflow has been written to since the thread began.
std::size_t used_below_overflow() {
  ULONG_PTR low, high;
  GetCurrentThreadStackLimits(&low, &high);
  for (MEMORY_BASIC_INFORMATION region; low < overflow; low += region.RegionSize) {
    VirtualQuery(reinterpret_cast<void*>(low), &region, sizeof region);
    if (region.State != MEM_COMMIT || region.Protect != PAGE_READWRITE) continue;
    auto const end = reinterpret_cast<ULONG_PTR const*>(overflow);
    auto const first = std::find_if(reinterpret_cast<ULONG_PTR const*>(low), end,
                                    [](ULONG_PTR value) { return value != 0; });
    return (end - first) * sizeof *first;
  }
  return 0;
}

// Writes little, so that it is not the platform's channel that overflows.
struct CountingWriter final : TStreamWriter {
  void StreamWriteString(char const*, unsigned __int64 size) override { written += size; }
  unsigned __int64 written = 0;
};

}  // namespace

class Overflow : public ::testing::TestWithParam<std::tuple<velt_test::Build, std::size_t>> {
protected:
  static void TearDownTestSuite() { velt_test::skipped_values = velt::detail::live_holders(); }
};

// A frame that is left half-made may hide as much as a page of the guarantee. A
// recursion that the optimiser made a loop returns.
TEST_P(Overflow, IsRecoveredAgainAndAgainAndLeavesAThirdOfTheGuarantee) {
  auto const& [build, index] = GetParam();
  auto const& recursion = build.recursions[index];
  auto const writer = MakeCounted<CountingWriter>();
  Debug.ChangeWriter(writer);
  std::size_t used = 0;
  overflows = recoveries = 0;
  auto const handler = AddVectoredExceptionHandler(1, note_overflow);
  auto const body = [&] {
    auto const first = recover(recursion);
    used = used_below_overflow();
    return first == "recovered" ? recover_often(recursion) : first;
  };
  auto const result = Overflowing(body).result();
  RemoveVectoredExceptionHandler(handler);
  if (result == "returned") GTEST_SKIP() << "became a loop";
  EXPECT_EQ(result, "recovered");
  EXPECT_EQ(overflows, recoveries) << "the run time's handlers swallowed some";
  constexpr std::size_t guarantee = 16384;
  EXPECT_GT(used, 4096u);
  EXPECT_LE(used, guarantee * 2 / 3);
  // The stream kept its writer, and nobody holds its lock.
  auto const before = writer->written;
  Debug << "text";
  EXPECT_EQ(writer->written, before + 4);
}

std::string name_of(Overflow::ParamType const& parameter, std::size_t number) {
  auto const& [build, index] = parameter;
  return std::to_string(number) + build.name + build.recursions[index].name;
}

INSTANTIATE_TEST_SUITE_P(
    , Overflow,
    ::testing::Combine(::testing::ValuesIn(builds),
                       ::testing::Range<std::size_t>(0, builds[0].recursions.size())),
    [](auto const& test) { return name_of(test.param, test.index); });

TEST(StackOverflow, IsRecoveredOnTheMainThreadOnceThatHasReservedItsRoom) {
  temporary_redirect_structured_exceptions const translated;
  ULONG bytes = 16384;
  SetThreadStackGuarantee(&bytes);
  EStackOverflowException::ResetStack();
  EXPECT_EQ(recover_often(ordinary_recursion), "recovered");
}

TEST(StackOverflow, IsCaughtAgainAfterAHandlerThatKnowsNothingOfGuards) {
  auto const catch_twice = [] {
    std::string said;
    for (int i = 0; i < 2; ++i) {
      try {
        ordinary_recursion.run(1);
      } catch (EGeneric&) {
        said += "caught ";
      }
    }
    return said;
  };
  EXPECT_EQ(Overflowing(catch_twice).result(), "caught caught ");
}

// With the stack of the thread that overflowed, though another one walks it.
TEST(StackOverflow, BringsDumpPlaceAndStack) {
  velt_test::scratch_folder const folder;
  std::filesystem::current_path(folder.path());
  VeltDebugSetup(true);
  SaveMiniDumpOnStructuredException = true;
  std::string place, stack;
  auto const look = [&] {
    try {
      ordinary_recursion.run(1);
    } catch (EStackOverflowException& error) {
      place = error["AddressName"].as_string();
      stack = error["Stack"].as_string();
      return std::filesystem::exists(error["MiniDump"].as_string()) ? "dump" : "no dump";
    }
    return "not thrown";
  };
  EXPECT_EQ(Overflowing(look).result(), "dump");
  SaveMiniDumpOnStructuredException = false;
  VeltDebugSetup(false);
  std::filesystem::current_path(folder.path().parent_path());
  EXPECT_TRUE(place.find("with_frames") != std::string::npos) << place;
  EXPECT_EQ(std::count(stack.begin(), stack.end(), '\n'), 64) << stack;
  EXPECT_TRUE(stack.ends_with(place)) << stack;
}

// An interruption that comes meanwhile waits for the thread's next wait.
TEST(StackOverflow, OfSeveralThreadsIsRecoveredOneAfterTheOtherWithoutRunningQueuedCalls) {
  static std::atomic<int> runs = 0;
  TEvent start(true, false);
  auto const recover_at_once = [&] {
    start.WaitForSingleObject(INFINITE, FALSE);
    QueueUserAPC([](ULONG_PTR) { ++runs; }, GetCurrentThread(), 0);
    return recover_often(ordinary_recursion) + std::to_string(SleepEx(0, TRUE));
  };
  std::vector<std::unique_ptr<Overflowing>> threads;
  for (int i = 0; i < 4; ++i) threads.push_back(std::make_unique<Overflowing>(recover_at_once));
  start.Set();
  for (auto const& thread : threads) EXPECT_EQ(thread->result(), "recovered192");
  EXPECT_EQ(runs, 4);
}
