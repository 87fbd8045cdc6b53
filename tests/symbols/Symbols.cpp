// Stacks and names of this very program, by the platform's engine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>
#undef StackWalk

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Imports.h"
#include "velt/diagnostics/Settings.h"
#include "velt/symbols/Symbols.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using velt_test::Replacement;

namespace {

using address_list = std::vector<unsigned __int64>;

std::string source_of(int line) { return "[Symbols.cpp#" + std::to_string(line) + "]"; }

struct walked_stack {
  address_list frames;
  std::string source;  // of the call of StackWalk
};

// In these the line has something left to do after the call: where it has not,
// the return address belongs to the next line.
[[gnu::noipa]] walked_stack walk_inner(unsigned skip) {
  unsigned __int64 frames[64];
  auto const end = frames + StackWalk(frames, nullptr, GetCurrentThread(), skip, 64);
  return {{frames, end}, source_of(__LINE__ - 1)};
}

[[gnu::noipa]] walked_stack walk_outer(unsigned skip) {
  auto stack = walk_inner(skip);
  stack.frames.shrink_to_fit();  // so that the call is not the last thing done
  return stack;
}

// Of more than 80 characters with its module.
[[gnu::noipa]] int
function_with_a_name_so_long_that_nobody_wants_to_read_it_in_the_line_of_a_stack() {
  return 1;
}

[[gnu::noipa]] int walk_from_late_module(void* result) {
  *static_cast<walked_stack*>(result) = walk_inner(0);
  return 1;
}

std::string name_of_frame(walked_stack const& stack, std::size_t index) {
  return index < stack.frames.size() ? SymGetFullNameFromAddress(stack.frames[index]) : "none";
}

struct SymbolsOfThisProgram : testing::Test {
  void SetUp() override { ASSERT_TRUE(SymInitialize()); }
  void TearDown() override { SymCleanup(); }
};

}  // namespace

TEST_F(SymbolsOfThisProgram, OwnStackBeginsAtTheCallerOfTheWalk) {
  auto const stack = walk_outer(0);
  EXPECT_THAT(name_of_frame(stack, 0), AllOf(StartsWith("symbols_tests!"), HasSubstr("walk_inner+"),
                                             EndsWith(stack.source)));
  EXPECT_THAT(name_of_frame(stack, 1), HasSubstr("walk_outer+"));
  EXPECT_THAT(name_of_frame(stack, 2), HasSubstr("[Symbols.cpp#"));
  EXPECT_THAT(name_of_frame(stack, stack.frames.size() - 1), StartsWith("ntdll!"));
  EXPECT_THAT(name_of_frame(walk_outer(1), 0), HasSubstr("walk_outer+"));
}

TEST_F(SymbolsOfThisProgram, FrameToBlameIsOutsideOfTheLibraryAndTheSystem) {
  auto stack = walk_outer(0).frames;
  auto const own = stack[0];
  for (auto const module : {"ntdll", "kernel32", "velt", "kernelbase"})
    stack.insert(stack.begin(), reinterpret_cast<std::uintptr_t>(GetModuleHandleA(module)));
  auto const count = static_cast<unsigned>(stack.size());
  EXPECT_EQ(SymGetActualErrorAddress(stack.data(), count), own);
  EXPECT_EQ(SymGetActualErrorAddress(stack.data(), 4), 0u) << "all are listed";
  auto const listed = std::exchange(SkipModulesForError, "other;KernelBase;kernel");
  EXPECT_EQ(SymGetActualErrorAddress(stack.data(), count), stack[1]);
  SkipModulesForError = listed;
}

TEST_F(SymbolsOfThisProgram, ModuleThatWasLoadedLaterIsFoundAndWalkedThrough) {
  HMODULE const module = LoadLibraryA("symbols_late_module.dll");
  auto const call_back = reinterpret_cast<int (*)(int (*)(void*), void*)>(
      reinterpret_cast<void*>(GetProcAddress(module, "call_back")));
  ASSERT_TRUE(call_back);
  auto const address = reinterpret_cast<std::uintptr_t>(call_back) + 4;
  EXPECT_TRUE(EnsureModuleSymbolsLoaded(address));
  EXPECT_EQ(SymGetModuleFromAddress(address), "symbols_late_module");
  EXPECT_EQ(SymGetNameFromAddress(address), "call_back+4");
  EXPECT_THAT(SymGetFullNameFromAddress(address),
              StartsWith("symbols_late_module!call_back+4[SymbolsLateModule.cpp#"));

  walked_stack stack;
  call_back(walk_from_late_module, &stack);
  EXPECT_THAT(name_of_frame(stack, 2), StartsWith("symbols_late_module!call_back+"));
  EXPECT_THAT(name_of_frame(stack, 3), HasSubstr("[Symbols.cpp#"));
  FreeLibrary(module);
}

TEST_F(SymbolsOfThisProgram, NamesAreShortenedInFrontOfASourceAndOtherwiseOffsets) {
  auto const address = reinterpret_cast<std::uintptr_t>(
      &function_with_a_name_so_long_that_nobody_wants_to_read_it_in_the_line_of_a_stack);
  auto const name = "symbols_tests!" + SymGetNameFromAddress(address);
  EXPECT_EQ(SymGetFullNameFromAddress(address), name.substr(0, 40) + ".." +
                                                    name.substr(name.size() - 40) + "[" +
                                                    SymGetSourceFromAddress(address) + "]");

  auto const nameless = reinterpret_cast<std::uintptr_t>(GetModuleHandleA("libstdc++-6"));
  EXPECT_EQ(SymGetFullNameFromAddress(nameless), "libstdc++-6!");
  EXPECT_EQ(SymGetFullNameFromAddress(nameless + 31), "libstdc++-6!+1f");
  EXPECT_EQ(SymGetFullNameFromAddress(0x123480000001), "!0x80000001");
}

TEST(Symbols, AreAskedForOnceUntilAModuleOrTheEngineChanges) {
  static int asked = 0;
  Replacement const counted{VELT_CALL(SymFromAddr), [](auto platform, auto... arguments) {
                              ++asked;
                              return platform(arguments...);
                            }};
  ASSERT_TRUE(SymInitialize());
  unsigned __int64 const frame = reinterpret_cast<std::uintptr_t>(&walk_inner);
  auto const name = SymGetFullNameFromAddress(frame);
  EXPECT_EQ(SymGetStackTrace(&frame, 1), "\n-> " + name);
  EXPECT_EQ(asked, 1);
  EnsureModuleSymbolsLoaded(0x999);  // looks for a module, and there may be a new one
  EXPECT_EQ(SymGetStackTrace(&frame, 1), "\n-> " + name);
  EXPECT_EQ(asked, 2);
  SymCleanup();
  EXPECT_THAT(SymGetFullNameFromAddress(frame), StartsWith("!0x"));
}

TEST(Symbols, AreMissingWithoutTheEngineOrARequiredEntry) {
  static std::string without;
  Replacement const old{velt_test::Call<FARPROC(WINAPI*)(HMODULE, char const*)>{"GetProcAddress"},
                        [](auto platform, HMODULE module, char const* name) {
                          return without == name ? nullptr : platform(module, name);
                        }};
  for (auto const entry : {"StackWalk64", "SymRefreshModuleList", "MiniDumpWriteDump"}) {
    without = entry;
    bool const is_enough = SymInitialize();
    EXPECT_EQ(is_enough, without == "SymRefreshModuleList");
    if (is_enough) SymCleanup();
    EXPECT_FALSE(GetModuleHandleW(L"dbghelp"));
  }
  Replacement const missing{VELT_CALL(LoadLibraryA), [](auto...) { return HMODULE(); }};
  address_list const frames{0x10010, 0x10020};
  EXPECT_FALSE(SymInitialize());
  EXPECT_EQ(GetMyDebugStack(), "");
  EXPECT_EQ(SymGetStackTrace(frames.data(), 2), "");
  EXPECT_EQ(SymGetActualErrorAddress(frames.data(), 2), frames[0]);
  EXPECT_FALSE(EnsureModuleSymbolsLoaded(frames[0]));
  EXPECT_EQ(SymGetFullNameFromAddress(frames[0]), "!0x10010");
}
