#include "velt/faults/StackOverflowException.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <malloc.h>

#include <algorithm>
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

// Runs the body on a thread of its own; what it says is there when it has ended.
// A thread for which the stack did not suffice has said nothing.
class Overflowing final : public TThreadClass {
public:
  using Body = std::function<std::string()>;

  explicit Overflowing(Body its_body) : body(std::move(its_body)) { StartThread(); }

  std::string result() {
    if (WaitForSingleObject(120'000, FALSE) != WAIT_OBJECT_0) return "no end";
    return said;
  }

  void ThreadBody() override { said = body(); }

private:
  Body const body;
  std::string said = "the thread is gone";
};

// Without the heap, whose lock an overflow may leave taken.
Recursion const& ordinary_recursion() {
  static auto const build = velt_test::build_at_o2();
  return build.recursions[1];
}

void overflow() { ordinary_recursion().run(1); }

std::string recover(Recursion const& recursion) {
  try {
    recursion.run(1);
    return "returned";
  } catch (EStackOverflowException& error) {
    if (std::string(error["Text"]) != "Stack Overflow") return error.what();
  }
  return EStackOverflowException::ResetStack() ? "recovered" : "not reset";
}

// Each time the stack runs out at another place.
std::string recover_often(Recursion const& recursion, int rounds, int step) {
  std::string last = "recovered";
  for (int round = 0; round < rounds && last == "recovered"; ++round) {
    *static_cast<char volatile*>(_alloca(step)) = 1;
    last = recover(recursion);
  }
  return last;
}

// How much of the stack below the fault has been written to since the thread
// began.
class Depth {
public:
  Depth() : handler(AddVectoredExceptionHandler(1, note)) { fault = 0; }
  ~Depth() { RemoveVectoredExceptionHandler(handler); }

  std::size_t used() const {
    ULONG_PTR low, high;
    GetCurrentThreadStackLimits(&low, &high);
    for (MEMORY_BASIC_INFORMATION region; low < fault; low += region.RegionSize) {
      VirtualQuery(reinterpret_cast<void*>(low), &region, sizeof region);
      if (region.State != MEM_COMMIT || region.Protect != PAGE_READWRITE) continue;
      auto const word = reinterpret_cast<ULONG_PTR const*>(low);
      auto const end = reinterpret_cast<ULONG_PTR const*>(fault);
      auto const first = std::find_if(word, end, [](ULONG_PTR value) { return value != 0; });
      return (end - first) * sizeof *word;
    }
    return 0;
  }

private:
  static LONG CALLBACK note(EXCEPTION_POINTERS* pointers) {
    if (pointers->ExceptionRecord->ExceptionCode == EXCEPTION_STACK_OVERFLOW)
      fault = pointers->ContextRecord->Rsp & ~ULONG_PTR{7};
    return EXCEPTION_CONTINUE_SEARCH;
  }

  static inline ULONG_PTR fault;
  void* const handler;
};

constexpr std::size_t guarantee = 16384;

}  // namespace

std::vector<velt_test::Build> const builds = {
    velt_test::build_at_o0(), velt_test::build_at_o1(), velt_test::build_at_o2(),
    velt_test::build_at_o3(), velt_test::build_of_dll()};

// Writes little, so that it is not the platform's channel that overflows.
struct CountingWriter final : TStreamWriter {
  void StreamWriteString(char const*, unsigned __int64 size) override { written += size; }
  unsigned __int64 written = 0;
};

class Overflow : public ::testing::TestWithParam<std::tuple<velt_test::Build, std::size_t>> {
protected:
  static void SetUpTestSuite() { Debug.ChangeWriter(writer = MakeCounted<CountingWriter>()); }
  static void TearDownTestSuite() { velt_test::skipped_values = velt::detail::live_holders(); }

  // The stream kept its writer, and nobody holds its lock.
  ~Overflow() override {
    auto const before = writer->written;
    Debug << "text";
    EXPECT_EQ(writer->written, before + 4);
  }

  static inline SmartPtr<CountingWriter> writer;
};

// A frame that is left half-made may hide as much as a page of the guarantee.
// A recursion that the optimiser made a loop returns.
TEST_P(Overflow, IsRecoveredAgainAndAgainAndLeavesAThirdOfTheGuarantee) {
  auto const& [build, index] = GetParam();
  auto const& recursion = build.recursions[index];
  constexpr int step = 16 * 23;
  auto const often = [&] { return recover_often(recursion, 11, step); };
  auto const result = Overflowing(often).result();
  if (result == "returned") GTEST_SKIP() << "became a loop";
  EXPECT_EQ(result, "recovered");

  std::size_t used = 0;
  auto const measure = [&] {
    Depth const depth;
    auto const end = recover(recursion);
    used = depth.used();
    return end;
  };
  EXPECT_EQ(Overflowing(measure).result(), "recovered");
  EXPECT_GT(used, 4096u);
  EXPECT_LE(used, guarantee * 2 / 3);
  RecordProperty("used", static_cast<int>(used));
}

std::string name_of_overflow(::testing::TestParamInfo<Overflow::ParamType> const& test) {
  auto const& [build, index] = test.param;
  return std::to_string(test.index) + build.name + build.recursions[index].name;
}

INSTANTIATE_TEST_SUITE_P(
    , Overflow,
    ::testing::Combine(::testing::ValuesIn(builds),
                       ::testing::Range<std::size_t>(0, builds[0].recursions.size())),
    name_of_overflow);

TEST(StackOverflow, HasNothingButTheFaultWithoutDiagnostics) {
  auto const values = [] {
    EStackOverflowException::ResetStack();  // does no harm
    std::string list;
    try {
      overflow();
    } catch (EStructuredException& error) {
      for (auto const& [name, value] : error.values())
        if (!name.starts_with("Parameter")) list += name + " " + value.as_string() + ", ";
    }
    return list;
  };
  auto const list = Overflowing(values).result();
  EXPECT_TRUE(list.starts_with("Text Stack Overflow, Code -1073741571, Address ")) << list;
  EXPECT_EQ(std::count(list.begin(), list.end(), ','), 3) << list;
}

// With the stack of the thread that overflowed, though another one walks it.
TEST(StackOverflow, BringsDumpPlaceAndStack) {
  velt_test::scratch_folder const folder;
  std::filesystem::current_path(folder.path());
  VeltDebugSetup(true);
  SaveMiniDumpOnStructuredException = true;
  bool dump_exists = false;
  std::string place, stack;
  auto const look = [&]() -> std::string {
    try {
      overflow();
    } catch (EStackOverflowException& error) {
      dump_exists = std::filesystem::exists(error["MiniDump"].as_string());
      place = error["AddressName"].as_string();
      stack = error["Stack"].as_string();
      return error["Text"];
    }
    return "not thrown";
  };
  EXPECT_EQ(Overflowing(look).result(), "Stack Overflow");
  SaveMiniDumpOnStructuredException = false;
  VeltDebugSetup(false);
  std::filesystem::current_path(folder.path().parent_path());
  EXPECT_TRUE(dump_exists);
  EXPECT_TRUE(place.find("with_an_array") != std::string::npos) << place;
  EXPECT_EQ(std::count(stack.begin(), stack.end(), '\n'), 64) << stack;
  EXPECT_TRUE(stack.ends_with(place)) << stack;
}

TEST(StackOverflow, OfSeveralThreadsIsRecoveredOneAfterTheOther) {
  TEvent start(true, false);
  auto const recover_at_once = [&] {
    start.WaitForSingleObject(INFINITE, FALSE);
    return recover_often(ordinary_recursion(), 5, 16);
  };
  std::vector<std::unique_ptr<Overflowing>> threads;
  for (int i = 0; i < 4; ++i) threads.push_back(std::make_unique<Overflowing>(recover_at_once));
  start.Set();
  for (auto const& thread : threads) EXPECT_EQ(thread->result(), "recovered");
}
