// Stacks and names of this very program, by the platform's engine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "velt/symbols/Symbols.h"

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

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
  ASSERT_GT(stack.frames.size(), 4u);
  EXPECT_THAT(name_of_frame(stack, 0), AllOf(StartsWith("symbols_tests!"),
                                             HasSubstr("walk_inner+"), EndsWith(stack.source)));
  EXPECT_THAT(name_of_frame(stack, 1), HasSubstr("walk_outer+"));
  EXPECT_THAT(name_of_frame(stack, 2), HasSubstr("[Symbols.cpp#"));
  EXPECT_THAT(name_of_frame(stack, stack.frames.size() - 1), StartsWith("ntdll!"));
  EXPECT_THAT(name_of_frame(walk_outer(1), 0), HasSubstr("walk_outer+"));
}

TEST_F(SymbolsOfThisProgram, FrameToBlameIsOutsideOfTheLibraryAndTheSystem) {
  auto stack = walk_outer(0).frames;
  auto const own = stack[0];
  for (auto const& [module, function] : {std::pair{"ntdll", "NtClose"},
                                         {"kernel32", "Sleep"},
                                         {"velt", "_Z10SymCleanupv"},
                                         {"kernelbase", "RaiseException"}}) {
    auto const entry = GetProcAddress(GetModuleHandleA(module), function);
    ASSERT_TRUE(entry) << function;
    stack.insert(stack.begin(), reinterpret_cast<std::uintptr_t>(entry));
  }
  EXPECT_EQ(SymGetActualErrorAddress(stack.data(), static_cast<unsigned>(stack.size())), own);
}

TEST_F(SymbolsOfThisProgram, ModuleThatWasLoadedLaterIsFoundAndWalkedThrough) {
  HMODULE const module = LoadLibraryA("symbols_late_module.dll");
  auto const call_back = reinterpret_cast<int (*)(int (*)(void*), void*)>(
      reinterpret_cast<void*>(GetProcAddress(module, "call_back")));
  ASSERT_TRUE(call_back);
  auto const address = reinterpret_cast<std::uintptr_t>(call_back) + 4;
  EXPECT_TRUE(EnsureModuleSymbolsLoaded(address));
  EXPECT_EQ(SymGetModuleFromAddress(address), "symbols_late_module");
  EXPECT_THAT(SymGetFullNameFromAddress(address),
              StartsWith("symbols_late_module!call_back+4[SymbolsLateModule.cpp#"));

  walked_stack stack;
  call_back(walk_from_late_module, &stack);
  EXPECT_THAT(name_of_frame(stack, 2), StartsWith("symbols_late_module!call_back+"));
  EXPECT_THAT(name_of_frame(stack, 3), HasSubstr("[Symbols.cpp#"));
  FreeLibrary(module);
}
