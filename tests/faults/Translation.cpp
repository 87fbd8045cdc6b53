#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/faults/PlainModule.h"
#include "tests/faults/Scenarios.h"
#include "tests/support/DocTables.h"
#include "tests/support/SkippedValues.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/faults/StructuredException.h"
#include "velt/value/HolderCacheInternal.h"

namespace {

using Address = int volatile*;

Address volatile nowhere = reinterpret_cast<Address>(0x10);
int volatile result;

[[gnu::noipa]] void read_nowhere() { result = *nowhere; }

// The caught exception's values but for the address, which is where the code
// happens to lie.
std::string caught(std::function<void()> const& action) {
  temporary_redirect_structured_exceptions const translated;
  std::string list;
  try {
    action();
  } catch (EStructuredException& error) {
    for (auto const& [name, value] : error.values())
      list +=
          (list.empty() ? "" : ", ") + name + (name == "Address" ? "" : " " + value.as_string());
  }
  return list;
}

std::string raised(DWORD code, std::vector<ULONG_PTR> const& parameters = {}) {
  return caught(
      [&] { RaiseException(code, 0, static_cast<DWORD>(parameters.size()), parameters.data()); });
}

}  // namespace

std::vector<velt_test::Build> const builds = {
    velt_test::build_at_o0(), velt_test::build_at_o1(), velt_test::build_at_o2(),
    velt_test::build_at_o3(), velt_test::build_of_dll()};

class Faults : public ::testing::TestWithParam<velt_test::Build> {
protected:
  static void TearDownTestSuite() { velt_test::skipped_values = velt::detail::live_holders(); }

  // What a function writes that may be left by the exception.
  std::string log_of(void (*run)(velt_test::Fault&)) const {
    velt_test::Fault fault{const_cast<int*>(nowhere), {}};
    try {
      run(fault);
    } catch (EStructuredException&) {
      fault.log += "next";
    }
    return fault.log;
  }

private:
  temporary_redirect_structured_exceptions const translated;
};

// In each build of the same code. The exception is taken by the try block around
// the place or by the next one outwards, and the page says which.
TEST_P(Faults, AreCaughtWhereTheTableSays) {
  std::map<std::string, std::string> promised;
  for (auto const& row : velt_test::doc_table("faults.md", "caught where"))
    promised[row[0]] = row[1];
  for (auto const& place : GetParam().places) {
    auto const log = log_of(place.fault);
    ASSERT_TRUE(promised.contains(place.row)) << place.row;
    auto const number = &place - GetParam().places.data();
    auto const& promise = promised[place.row];
    bool const own = log == "~note own", next = log.ends_with("next");
    EXPECT_TRUE(promise == "always" ? own : promise == "never" ? next : own || next)
        << place.row << ", " << number << ": " << log;
  }
}

TEST_P(Faults, AreCaughtWhateverStandsAroundThem) {
  for (auto const& scenario : GetParam().scenarios)
    EXPECT_EQ(log_of(scenario.run), scenario.log) << scenario.name;
}

INSTANTIATE_TEST_SUITE_P(, Faults, ::testing::ValuesIn(builds), [](auto const& test) {
  return std::to_string(test.index) + test.param.name;
});

// Codes, texts and parameters.

// A row of the documentation's table; most are for one code.
struct Codes {
  DWORD first, last;
  std::string text;
};

std::vector<Codes> documented_codes() {
  auto table = velt_test::doc_table("faults.md", "fault codes");
  table.erase(table.begin());
  std::vector<Codes> all;
  for (auto const& row : table) {
    auto const number = [](std::string const& text) { return std::stoul(text, nullptr, 16); };
    auto const to = row[0].find(" to ");
    auto const first = number(row[0]);
    all.push_back({first, to == std::string::npos ? first : number(row[0].substr(to + 4)), row[1]});
  }
  return all;
}

TEST(StructuredException, NamesTheCodesThatItKnows) {
  auto const all = documented_codes();
  auto const beginning = [&](DWORD code) {
    for (auto const& row : all)
      if (row.first <= code && code <= row.last) return "Text " + row.text;
    return std::string("Code ");
  };
  // Each code, and its neighbours.
  for (auto const& row : all)
    for (DWORD code = row.first - 1; code <= row.last + 1; ++code) {
      auto const list = raised(code);
      EXPECT_TRUE(list.starts_with(beginning(code))) << list;
      EXPECT_TRUE(list.ends_with("Code " + std::to_string(static_cast<int>(code)) + ", Address"))
          << list;
    }
  EXPECT_EQ(raised(1), "Code 1, Address");
  EXPECT_EQ(raised(0xC0000099), "Code -1073741671, Address");
}

TEST(StructuredException, TellsTheAccessThatWasRefused) {
  EXPECT_EQ(raised(0xC0000005, {0, 0x123456789ABCDEF0}),
            "Text Access Violation (read from 0x123456789abcdef0), Code -1073741819, Address, "
            "Parameter0 0, Parameter1 -1698898192");
  EXPECT_EQ(raised(0xC0000005, {0x100000000, 0xAB}),
            "Text Access Violation (write to 0xab), Code -1073741819, Address, "
            "Parameter0 0, Parameter1 171");
  // The record has room for parameters, whether they count or not.
  EXPECT_TRUE(raised(0xC0000005).starts_with("Text Access Violation ("));
}

TEST(StructuredException, NumbersParametersByOneCharacter) {
  EXPECT_EQ(raised(0xE0000000, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14}),
            "Code -536870912, Address, Parameter0 0, Parameter1 1, Parameter2 2, Parameter3 3, "
            "Parameter4 4, Parameter5 5, Parameter6 6, Parameter7 7, Parameter8 8, Parameter9 9, "
            "Parameter: 10, Parameter; 11, Parameter< 12, Parameter= 13, Parameter> 14");
}

TEST(StructuredException, KeepsTheLowHalfOfTheAddress) {
  temporary_redirect_structured_exceptions const translated;
  try {
    read_nowhere();
    FAIL();
  } catch (EStructuredException& error) {
    int const address = error["Address"];
    auto const function = static_cast<int>(reinterpret_cast<ULONG_PTR>(&read_nowhere));
    EXPECT_GE(address, function);
    EXPECT_LT(address, function + 64);
  }
}

TEST(StructuredException, CanBeMadeByHand) {
  EXCEPTION_RECORD record{};
  record.ExceptionAddress = reinterpret_cast<void*>(0x1234567880000000);
  CONTEXT context{};
  EXCEPTION_POINTERS pointers{&record, &context};
  EStructuredException const error(0xC00000FD, &pointers, 0);
  EXPECT_STREQ(error.what(),
               "Text: Stack Overflow\nCode: -1073741571 (0xc00000fd)\n"
               "Address: -2147483648 (0x80000000)");
}

// What the processor does, kept from the optimiser.
namespace {

[[gnu::noipa]] void write_nowhere() { *nowhere = 1; }

[[gnu::noipa]] void execute_data() {
  static char data[] = "\xC3";
  reinterpret_cast<void (*)()>(reinterpret_cast<ULONG_PTR>(data))();
}

[[gnu::noipa]] void divide(int volatile& dividend, int volatile& divisor) {
  result = dividend / divisor;
}

[[gnu::noipa]] void step() { asm volatile("pushfq; orq $0x100, (%rsp); popfq; nop; nop"); }

[[gnu::noipa]] void divide_floats() {
  double volatile one = 1, nothing = 0;
  unsigned const trap_division = 0x1F80 & ~0x200;
  asm volatile("ldmxcsr %0" : : "m"(trap_division));
  one = one / nothing;
}

[[gnu::noipa]] void touch_guard() {
  void* const page = VirtualAlloc(nullptr, 4096, MEM_COMMIT, PAGE_READWRITE | PAGE_GUARD);
  result = *static_cast<Address>(page);
}

}  // namespace

TEST(ProcessorFault, OfEveryKindIsTranslated) {
  int volatile zero = 0;
  struct {
    std::function<void()> action;
    char const* expected;
  } const rows[] = {
      {read_nowhere, "Text Access Violation (read from 0x10), Code -1073741819, Address"},
      {write_nowhere, "Text Access Violation (write to 0x10), Code -1073741819, Address"},
      {execute_data, "Text Access Violation (write to 0x"},
      {[&] { divide(zero, zero); }, "Text Divide by Zero, Code -1073741676, Address"},
      {[] { asm volatile("int $4"); }, "Text Integer Overflow, Code -1073741675, Address"},
      {[] { asm volatile("ud2"); }, "Text Illegal Instruction, Code -1073741795, Address"},
      {[] { asm volatile("int3"); }, "Text Breakpoint, Code -2147483645, Address"},
      {step, "Text Debugger Exception, Code -2147483644, Address"},
      {[] { asm volatile("hlt"); }, "Text Privileged Instruction, Code -1073741674, Address"},
      {divide_floats, "Text FPU Error, Code "},
      {touch_guard, "Code -2147483647, Address, Parameter0 0"},
  };
  for (auto const& [action, expected] : rows) {
    auto const list = caught(action);
    EXPECT_TRUE(list.starts_with(expected)) << list << " instead of " << expected;
  }
  unsigned const all_masked = 0x1F80;
  asm volatile("ldmxcsr %0" : : "m"(all_masked));
}

// Frames of a module that does not know the library.
TEST(PlainModule, CleansUpInAFrameBetweenAndCatchesWhatAFrameFurtherOutTranslates) {
  bool cleaned_up = false, caught_there = false;
  auto const read = [](void*) { read_nowhere(); };
  caught([&] {
    plain_module::call(read, [](void* context) { *static_cast<bool*>(context) = true; },
                       &cleaned_up);
  });
  caught([&] { caught_there = plain_module::catches(read, nullptr); });
  EXPECT_TRUE(cleaned_up);
  EXPECT_TRUE(caught_there);
}

// The setting of each thread.

namespace {

constexpr DWORD probe_code = 0xE0000042;

// Called where no frame took the exception; lets the process go on.
LONG CALLBACK ignore_probe(EXCEPTION_POINTERS* pointers) {
  return pointers->ExceptionRecord->ExceptionCode == probe_code ? EXCEPTION_CONTINUE_EXECUTION
                                                                : EXCEPTION_CONTINUE_SEARCH;
}

bool is_translated() {
  auto const previous = SetUnhandledExceptionFilter(ignore_probe);
  bool translated = false;
  try {
    RaiseException(probe_code, 0, 0, nullptr);
  } catch (EStructuredException&) {
    translated = true;
  }
  SetUnhandledExceptionFilter(previous);
  return translated;
}

}  // namespace

TEST(Redirection, IsOfOneThreadAndLastsToTheEndOfItsScope) {
  EXPECT_FALSE(is_translated());
  {
    temporary_redirect_structured_exceptions const outer;
    EXPECT_TRUE(is_translated());
    { temporary_redirect_structured_exceptions const inner; }
    EXPECT_TRUE(is_translated());
    std::thread([] {
      EXPECT_FALSE(is_translated());
      redirect_structured_exceptions();
      EXPECT_TRUE(is_translated());
    }).join();
  }
  EXPECT_FALSE(is_translated());
}

TEST(Redirection, ServesManyThreadsAtOnce) {
  constexpr int threads = 4, faults = 300;
  std::atomic<int> count = 0;
  std::vector<std::jthread> all;
  for (int i = 0; i < threads; ++i)
    all.emplace_back([&] {
      for (int fault = 0; fault < faults; ++fault) count += caught(read_nowhere) != "";
    });
  all.clear();
  EXPECT_EQ(count, threads * faults);
}

TEST(Redirection, LeavesTheLastErrorAlone) {
  temporary_redirect_structured_exceptions const translated;
  try {
    SetLastError(4711);
    read_nowhere();
  } catch (EGeneric&) {
    EXPECT_EQ(GetLastError(), 4711u);
  }
}
