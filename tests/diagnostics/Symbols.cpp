// Stacks and names of this very program, by the platform's engine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "velt/diagnostics/Symbols.h"

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
[[gnu::noipa]] walked_stack walk_inner(HANDLE thread, unsigned skip) {
  unsigned __int64 frames[64];
  auto const end = frames + StackWalk(frames, nullptr, thread, skip, 64);
  return {{frames, end}, source_of(__LINE__ - 1)};
}

[[gnu::noipa]] walked_stack walk_outer(HANDLE thread, unsigned skip) {
  auto stack = walk_inner(thread, skip);
  stack.frames.shrink_to_fit();  // so that the call is not the last thing done
  return stack;
}

[[gnu::noipa]] std::string own_stack_text(std::string& source) {
  std::string text;
  text += GetMyDebugStack();
  source = source_of(__LINE__ - 1);
  return text;
}

std::string name_of_frame(walked_stack const& stack, std::size_t index) {
  return index < stack.frames.size() ? SymGetFullNameFromAddress(stack.frames[index]) : "none";
}

// A thread of its own, stopped in stand_still().
class StandingThread {
public:
  StandingThread() : thread([this] { stand_still(); }) {
    WaitForSingleObject(standing, INFINITE);
    SuspendThread(handle());
  }
  ~StandingThread() {
    ResumeThread(handle());
    stop = true;
    thread.join();
    CloseHandle(standing);
  }

  HANDLE handle() { return reinterpret_cast<HANDLE>(pthread_gethandle(thread.native_handle())); }
  CONTEXT context() {
    CONTEXT result;
    result.ContextFlags = CONTEXT_FULL;
    EXPECT_TRUE(GetThreadContext(handle(), &result));
    return result;
  }

private:
  [[gnu::noipa]] void stand_still() {
    SetEvent(standing);
    while (!stop) YieldProcessor();
  }

  HANDLE const standing = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  std::atomic<bool> stop = false;
  std::thread thread;
};

struct SymbolsOfThisProgram : testing::Test {
  void SetUp() override { ASSERT_TRUE(SymInitialize()); }
  void TearDown() override { SymCleanup(); }
};

}  // namespace

TEST_F(SymbolsOfThisProgram, OwnStackBeginsAtTheCallerOfTheWalk) {
  auto const stack = walk_outer(GetCurrentThread(), 0);
  ASSERT_GT(stack.frames.size(), 4u);
  EXPECT_THAT(name_of_frame(stack, 0), AllOf(StartsWith("diagnostics_tests!"),
                                             HasSubstr("walk_inner+"), EndsWith(stack.source)));
  EXPECT_THAT(name_of_frame(stack, 1), HasSubstr("walk_outer+"));
  EXPECT_THAT(name_of_frame(stack, 2), HasSubstr("[Symbols.cpp#"));
  EXPECT_THAT(name_of_frame(stack, stack.frames.size() - 1), StartsWith("ntdll!"));
}

TEST_F(SymbolsOfThisProgram, SkippedFramesAreTheInnermostOfEitherHandle) {
  HANDLE thread;
  ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &thread,
                              0, FALSE, DUPLICATE_SAME_ACCESS));
  auto const all = walk_outer(GetCurrentThread(), 0).frames;
  auto const rest = walk_outer(thread, 1).frames;
  CloseHandle(thread);
  ASSERT_GT(rest.size(), 3u);
  // From the test on outwards they differ, since it calls twice.
  EXPECT_EQ(rest[0], all[1]);
  EXPECT_EQ(address_list(rest.begin() + 2, rest.end()), address_list(all.begin() + 3, all.end()));
}

TEST_F(SymbolsOfThisProgram, SuspendedThreadNeedsAContext) {
  StandingThread other;
  EXPECT_EQ(walk_outer(other.handle(), 0).frames.size(), 0u);
  auto context = other.context();
  auto const place = context.Rip;
  unsigned __int64 frames[64];
  auto const count = StackWalk(frames, &context, other.handle(), 0, 64);
  EXPECT_EQ(context.Rip, place);
  EXPECT_EQ(frames[0], place);
  EXPECT_THAT(SymGetStackTrace(frames, count),
              AllOf(HasSubstr("stand_still"), HasSubstr("\n-> ntdll!")));
}

TEST_F(SymbolsOfThisProgram, TextOfTheOwnStackEndsInItsCaller) {
  std::string source;
  auto const text = own_stack_text(source);
  EXPECT_THAT(text, AllOf(StartsWith("\n-> ntdll!"), EndsWith(source)));
  EXPECT_THAT(text.substr(text.rfind("\n-> ")),
              AllOf(StartsWith("\n-> diagnostics_tests!"), HasSubstr("own_stack_text+")));
}

TEST_F(SymbolsOfThisProgram, FrameToBlameIsOutsideOfTheLibraryAndTheSystem) {
  auto stack = walk_outer(GetCurrentThread(), 0).frames;
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

namespace {

struct LateModule {
  HMODULE const module = LoadLibraryA("diagnostics_late_module.dll");
  int (*const call_back)(int (*)(void*), void*) = reinterpret_cast<int (*)(int (*)(void*), void*)>(
      reinterpret_cast<void*>(GetProcAddress(module, "call_back")));
  ~LateModule() { FreeLibrary(module); }
};

[[gnu::noipa]] int walk_from_late_module(void* result) {
  *static_cast<walked_stack*>(result) = walk_inner(GetCurrentThread(), 0);
  return 1;
}

}  // namespace

TEST_F(SymbolsOfThisProgram, ModuleThatWasLoadedLaterIsFound) {
  LateModule late;
  ASSERT_TRUE(late.module);
  auto const address = reinterpret_cast<std::uintptr_t>(late.call_back) + 4;
  EXPECT_TRUE(EnsureModuleSymbolsLoaded(address));
  EXPECT_EQ(SymGetModuleFromAddress(address), "diagnostics_late_module");
  EXPECT_THAT(SymGetFullNameFromAddress(address),
              AllOf(StartsWith("diagnostics_late_module!call_back+4[SymbolsLateModule.cpp#")));
}

TEST_F(SymbolsOfThisProgram, WalkLeadsThroughAModuleThatWasLoadedLater) {
  LateModule late;
  ASSERT_TRUE(late.module);
  walked_stack stack;
  late.call_back(walk_from_late_module, &stack);
  ASSERT_GT(stack.frames.size(), 5u);
  EXPECT_THAT(name_of_frame(stack, 2), StartsWith("diagnostics_late_module!call_back+"));
  EXPECT_THAT(name_of_frame(stack, 3), HasSubstr("[Symbols.cpp#"));
}

TEST(Symbols, ThreadsWalkAndNameAtTheSameTime) {
  std::vector<std::jthread> threads;
  std::atomic<int> right = 0;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      for (int round = 0; round < 3; ++round) {
        std::string source;
        if (own_stack_text(source).ends_with(source)) ++right;
      }
    });
  threads.clear();
  EXPECT_EQ(right, 12);
}
