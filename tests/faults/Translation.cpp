#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>
#include <xmmintrin.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/faults/Scenarios.h"
#include "tests/support/DocTables.h"
#include "tests/support/SkippedValues.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/faults/ThrownObjectInternal.h"
#include "velt/faults/TranslatorInternal.h"
#include "velt/value/HolderCacheInternal.h"

namespace {

using Address = int volatile*;

Address volatile nowhere = reinterpret_cast<Address>(0x10);
int volatile result;

// The processor's control of faults, 0x1F80 as usual.
class FloatingPoint {
public:
  explicit FloatingPoint(unsigned control) { _mm_setcsr(control); }
  ~FloatingPoint() { _mm_setcsr(0x1F80); }
};

std::string caught(void (*action)()) {
  temporary_redirect_structured_exceptions const translated;
  try {
    action();
  } catch (EStructuredException& error) {
    return error.what();
  }
  return {};
}

// Of an exception made by hand.
std::string made(DWORD code, std::vector<ULONG_PTR> const& parameters = {}) {
  EXCEPTION_RECORD record{code, 0, nullptr, reinterpret_cast<void*>(0x1234567880000000),
                          static_cast<DWORD>(parameters.size()), {}};
  std::ranges::copy(parameters, record.ExceptionInformation);
  CONTEXT context{};
  EXCEPTION_POINTERS pointers{&record, &context};
  return EStructuredException(code, &pointers, 0).what();
}

}  // namespace

class Faults : public ::testing::TestWithParam<velt_test::Build> {
protected:
  static void TearDownTestSuite() { velt_test::skipped_values = velt::detail::live_holders(); }

  // What a function writes that may be left by the exception. Conversions of numbers
  // that are too large trap.
  std::string log_of(void (*run)(velt_test::Fault&)) const {
    velt_test::Fault fault{.nowhere = const_cast<int*>(nowhere), .log = {}};
    FloatingPoint const traps(0x1F00);
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

namespace {

// Set by the thread that ends the process.
velt_test::Fault* last_fault;

void say(std::string const& how) {
  std::fputs((how + last_fault->log).c_str(), stderr);
  std::fflush(stderr);
}

[[noreturn]] void end_terminated() {
  try {
    if (!std::current_exception()) say("terminated amid an unwinding");
    if (std::current_exception()) throw;
  } catch (EGeneric& error) {
    say("terminated by " + error["Text"].as_string());
  } catch (...) {
    say("terminated by something else");
  }
  std::_Exit(3);
}

// In place of the platform's dialogue. The process ends with the fault's code. A throw
// goes on to std::terminate, as with the filter of the run time.
LONG CALLBACK say_unhandled(EXCEPTION_POINTERS* pointers) {
  if (velt::detail::is_typed_throw(pointers)) return EXCEPTION_CONTINUE_EXECUTION;
  say("unhandled");
  return EXCEPTION_EXECUTE_HANDLER;
}

// On a thread without handlers.
void end_by(void (*run)(velt_test::Fault&)) {
  SetUnhandledExceptionFilter(say_unhandled);
  std::set_terminate(end_terminated);
  auto const body = [](void* parameter) -> DWORD {
    velt_test::Fault fault{.nowhere = const_cast<int*>(nowhere), .log = {}};
    last_fault = &fault;
    redirect_structured_exceptions();
    reinterpret_cast<void (*)(velt_test::Fault&)>(parameter)(fault);
    say("returned ");
    return 0;
  };
  auto const way = reinterpret_cast<void*>(run);
  WaitForSingleObject(CreateThread(nullptr, 0, body, way, 0, nullptr), INFINITE);
}

}  // namespace

TEST_P(Faults, EndTheProcessWhereNobodyMayCatchThem) {
  for (auto const& [run, status, said] : GetParam().ends)
    EXPECT_EXIT(end_by(run), testing::ExitedWithCode(static_cast<int>(status)),
                testing::StrEq(said));
}

INSTANTIATE_TEST_SUITE_P(, Faults, ::testing::ValuesIn(velt_test::all_builds()), [](auto const& test) {
  return std::to_string(test.index) + test.param.name;
});

// Codes, texts and parameters.

// A row of the documentation's table is for one code, or for all from one to another.
TEST(StructuredException, NamesTheCodesThatItKnows) {
  std::map<DWORD, std::string> texts;
  for (auto const& row : velt_test::doc_table("faults.md", "fault codes")) {
    if (row[0] == "Code") continue;
    auto const last = row[0].substr(row[0].rfind('0', row[0].rfind('x')));
    for (auto code = std::stoul(row[0], nullptr, 16); code <= std::stoul(last, nullptr, 16); ++code)
      texts[code] = "Text: " + row[1];
  }
  EXPECT_EQ(texts.size(), 23u);
  for (auto const& [known, text] : texts)
    for (auto const code : {known - 1, known, known + 1}) {
      auto const list = made(code);
      EXPECT_TRUE(list.starts_with(texts.contains(code) ? texts[code] : "Code: ")) << list;
      EXPECT_TRUE(list.ends_with("\nAddress: -2147483648 (0x80000000)")) << list;
    }
}

// The record has room for parameters, whether they count or not.
TEST(StructuredException, TellsAccessAndParameters) {
  EXPECT_TRUE(made(0xC0000005).starts_with("Text: Access Violation (read from 0x0)"));
  auto const list = made(0xC0000005, {0x100000000, 0x123456789ABCDEF0, 2, 3, 4, 5, 6, 7, 8, 9, 10});
  for (char const* part : {"Text: Access Violation (write to 0x123456789abcdef0)\n",
                           "\nParameter0: 0 (0x0)\nParameter1: -1698898192 (0x9abcdef0)\n",
                           "\nParameter9: 9 (0x9)\nParameter:: 10 (0xa)"})
    EXPECT_TRUE(list.find(part) != list.npos) << list;
}

// The call's frame is the first that can be named.
TEST(StructuredException, OfACallThroughABadPointerHasThePlaceOfTheCall) {
  VeltDebugSetup(true);
  for (auto const call : {+[] { reinterpret_cast<void (*)()>(nowhere - 4)(); },
                          +[] { reinterpret_cast<void (*)()>(nowhere)(); }}) {
    auto const list = caught(call);
    for (char const* part : {"\nModuleName: translation_tests", "\nAddressName: ", "\nStack: "})
      EXPECT_TRUE(list.find(part) != list.npos) << list;
  }
  VeltDebugSetup(false);
}

TEST(ProcessorFault, OfEveryKindIsTranslated) {
  std::pair<void (*)(), char const*> const rows[] = {
      {[] {
         static char data[] = "\xC3";
         reinterpret_cast<void (*)()>(reinterpret_cast<ULONG_PTR>(data))();
       },
       "Text: Access Violation (write to 0x"},
      {[] { asm volatile("ud2"); }, "Text: Illegal Instruction\nCode: -1073741795 "},
      {[] { asm volatile("int3"); }, "Text: Breakpoint\nCode: -2147483645 "},
      {[] { asm volatile("pushfq; orq $0x100, (%rsp); popfq; nop; nop"); },
       "Text: Debugger Exception\nCode: -2147483644 "},
      {[] { asm volatile("hlt"); }, "Text: Privileged Instruction\nCode: -1073741674 "},
      {[] {
         FloatingPoint const traps(0x1D80);
         double volatile nothing = 0;
         nothing = 1 / nothing;
       },
       "Text: FPU Error\nCode: "},
  };
  for (auto const& [action, expected] : rows) {
    auto const list = caught(action);
    EXPECT_TRUE(list.starts_with(expected)) << list << " instead of " << expected;
  }
}

// The setting of each thread, and translators that throw what they like, fail, or decline.

namespace {

std::string calls;

void raise_probe() { RaiseException(0xE0000042, 0, 0, nullptr); }

bool is_translated() {
  try {
    raise_probe();
  } catch (EStructuredException&) {
    return true;
  }
  return false;
}

class Translator : public ::testing::Test {
protected:
  ~Translator() override {
    velt::detail::set_translator(nullptr);
    SetUnhandledExceptionFilter(previous);
    calls.clear();
  }

private:
  // Where no frame took the exception, the process goes on.
  LPTOP_LEVEL_EXCEPTION_FILTER const previous =
      SetUnhandledExceptionFilter([](EXCEPTION_POINTERS*) -> LONG {
        calls += "unhandled ";
        return EXCEPTION_CONTINUE_EXECUTION;
      });
};

}  // namespace

TEST_F(Translator, IsOfOneThreadAndLastsToTheEndOfItsScope) {
  EXPECT_FALSE(is_translated());
  {
    temporary_redirect_structured_exceptions const outer;
    SetLastError(4711);
    EXPECT_TRUE(is_translated());
    EXPECT_EQ(GetLastError(), 4711u);
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

// A fault in a translator would be the next fault to translate, and so on.
TEST_F(Translator, IsNotAskedForItsOwnFaults) {
  velt::detail::set_translator([](unsigned int, EXCEPTION_POINTERS*) {
    calls += "asked ";
    raise_probe();
    throw 1;
  });
  EXPECT_THROW(raise_probe(), int);
  EXPECT_EQ(calls, "asked unhandled ");
}

// What it catches itself is translated, and does not get in the way of what it
// throws then.
TEST_F(Translator, MayCatchFaultsOfItsOwn) {
  velt::detail::set_translator([](unsigned int, EXCEPTION_POINTERS* pointers) {
    calls += "asked ";
    if (pointers->ExceptionRecord->ExceptionInformation[1] != 0x10) throw 2;
    EXPECT_THROW(result = nowhere[1], int);
    throw 1;
  });
  for (int round = 0; round < 2; ++round) EXPECT_THROW(result = *nowhere, int);
  EXPECT_EQ(calls, "asked asked asked asked ");
}
