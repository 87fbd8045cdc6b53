// Stacks and names: of this very program, by the platform's engine, and of modules whose
// debug information the engine cannot read.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>
#undef StackWalk

#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/Imports.h"
#include "tests/support/LoaderOwner.h"
#include "velt/diagnostics/DebugSnapshot.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/symbols/Symbols.h"

using testing::AllOf;
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

std::string name_of_frame(walked_stack const& stack, std::size_t index) {
  return index < stack.frames.size() ? SymGetFullNameFromAddress(stack.frames[index]) : "none";
}

std::string stack_of_throw() {
  try {
    throw EGeneric();
  } catch (EGeneric& error) {
    return error.get_value("Stack", "").as_string();
  }
}

std::string beside_the_program(char const* file) {
  char path[MAX_PATH];
  GetModuleFileNameA(nullptr, path, MAX_PATH);
  return std::filesystem::path(path).replace_filename(file).string();
}

// Loaded while it lives, and so is the engine.
struct plugin {
  explicit plugin(std::string const& name) : module(LoadLibraryA((name + ".dll").c_str())) {
    EXPECT_TRUE(module && SymInitialize()) << name;
  }
  ~plugin() {
    FreeLibrary(module);
    SymCleanup();
  }

  std::uintptr_t entry(char const* name) const {
    return reinterpret_cast<std::uintptr_t>(GetProcAddress(module, name));
  }
  std::string stack() const {
    static std::string text;
    auto const call_back = reinterpret_cast<int (*)(bool (*)())>(entry("call_back"));
    call_back([] { return (text = GetMyDebugStack()).empty(); });
    return text;
  }

  HMODULE const module;
};

auto has_functions_of(std::string const& name) {
  auto const line = "\n-> symbols_" + name + "_plugin!";
  return AllOf(StartsWith("\n-> ntdll!"), HasSubstr(line + "call_back+"),
               HasSubstr(line + name + "::reader<int>::read+"), HasSubstr(line + name + "::call+"));
}

struct SymbolsOfThisProgram : testing::Test {
  void SetUp() override { ASSERT_TRUE(SymInitialize()); }
  void TearDown() override { SymCleanup(); }
};

}  // namespace

TEST_F(SymbolsOfThisProgram, SnapshotFollowsItsCallerThroughALibraryThatIsNew) {
  TakeDebugSnapshot();
  plugin const late("symbols_late_module");
  static std::string text;
  reinterpret_cast<int (*)(bool (*)())>(late.entry("call_back"))(
      [] { return (text = TakeDebugSnapshot()).empty(); });
  EXPECT_THAT(text, HasSubstr("-> symbols_late_module!call_back+"));
}

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

// A thread that owns the loader lock, as in a DllMain or in a static constructor of
// a DLL, and one that needs it for the symbol engine must not wait for each other.
TEST(SymbolsAndLoader, OwnerOfTheLoaderLockThrowsWhileAnotherThreadStartsTheEngine) {
  VeltDebugSetup(true);
  TEvent owned(true, false);
  std::string stack_of_other;
  std::thread other([&] {
    owned.WaitForSignal();
    stack_of_other = stack_of_throw();
  });
  ULONG_PTR cookie;
  LdrLockLoaderLock(0, nullptr, &cookie);
  owned.SetEvent();
  Sleep(300);  // the other thread is waiting for the loader
  EXPECT_NE(stack_of_throw(), "");
  LdrUnlockLoaderLock(0, cookie);
  other.join();
  EXPECT_NE(stack_of_other, "");
  VeltDebugSetup(false);
}

TEST(SymbolsAndLoader, OwnerOfTheLoaderLockThrowsWhileTheEngineWaitsForIt) {
  TEvent asked(true, false), thrown(true, false);
  bool in_time = false;
  Replacement const waiting{VELT_CALL(SymFromAddr), [&](auto...) -> BOOL {
                              if (asked.Signaled(0)) return FALSE;
                              asked.SetEvent();
                              in_time = thrown.Signaled(20'000);
                              return FALSE;
                            }};
  ASSERT_TRUE(SymInitialize());
  VeltDebugSetup(true);
  std::thread other([] { SymGetNameFromAddress(reinterpret_cast<std::uintptr_t>(&walk_inner)); });
  asked.WaitForSignal();
  ULONG_PTR cookie;
  LdrLockLoaderLock(0, nullptr, &cookie);
  EXPECT_EQ(stack_of_throw(), "");
  LdrUnlockLoaderLock(0, cookie);
  thrown.SetEvent();
  other.join();
  EXPECT_TRUE(in_time);
  VeltDebugSetup(false);
  SymCleanup();
}

TEST(SymbolsAndLoader, NoNewModuleIsFoundWhileTheLoaderHangs) {
  ASSERT_TRUE(SymInitialize());
  constexpr unsigned __int64 address = 0x777;  // in no module
  {
    velt_test::loader_owner const owner;
    EXPECT_FALSE(EnsureModuleSymbolsLoaded(address));
    EXPECT_FALSE(EnsureModuleSymbolsLoaded(address)) << "not looked for, so not remembered";
    EXPECT_NE(GetMyDebugStack(), "");
  }
  EXPECT_FALSE(EnsureModuleSymbolsLoaded(address));
  EXPECT_TRUE(EnsureModuleSymbolsLoaded(address));
  SymCleanup();
}

TEST(CoffNames, FunctionsAreNamedFromTheFile) {
  plugin const first("symbols_first_plugin"), stripped("symbols_stripped_plugin");
  EXPECT_THAT(first.stack(), has_functions_of("first"));
  EXPECT_THAT(stripped.stack(), HasSubstr("\n-> symbols_stripped_plugin!+"));
  // In front of the section with the functions, and behind it.
  EXPECT_EQ(SymGetNameFromAddress(0x6a000fff), "0x6a000fff");
  EXPECT_THAT(SymGetNameFromAddress(first.entry("some_data") + 1), StartsWith("0x6a00"));
}

TEST(CoffNames, ModuleAtTheBaseOfAnotherHasItsOwnNames) {
  plugin const holder("symbols_stripped_plugin");
  for (std::string const name : {"first", "second", "first"}) {
    plugin const module("symbols_" + name + "_plugin");
    ASSERT_EQ(module.entry("call_back") >> 16, 0x6a00u);
    for (int i = 0; i < 2; ++i)  // from the cache, the second time
      EXPECT_THAT(module.stack(), has_functions_of(name));
  }
}

TEST(CoffNames, FileThatReplacedTheLoadedOneIsNotRead) {
  auto const first = beside_the_program("symbols_first_plugin.dll");
  auto const second = beside_the_program("symbols_second_plugin.dll");
  ASSERT_TRUE(CopyFileA(first.c_str(), "replaced.dll", FALSE));
  {
    plugin const module("replaced");
    EXPECT_TRUE(MoveFileExA("replaced.dll", "moved.dll", MOVEFILE_REPLACE_EXISTING));
    EXPECT_TRUE(CopyFileA(second.c_str(), "replaced.dll", TRUE));
    EXPECT_THAT(module.stack(), HasSubstr("\n-> replaced!+"));
  }
  EXPECT_TRUE(DeleteFileA("replaced.dll") && DeleteFileA("moved.dll"));
}

TEST(CoffNames, EngineComesFirstUnlessItsNameIsOnlyPublic) {
  ULONG tag;
  Replacement const own{
      VELT_CALL(SymFromAddr), [&](auto, HANDLE, DWORD64, DWORD64*, SYMBOL_INFO* symbol) {
        symbol->Tag = tag;
        return symbol->Name[0] = 'n', TRUE;
      }};
  plugin const module("symbols_first_plugin");
  tag = 10;
  EXPECT_EQ(SymGetNameFromAddress(module.entry("call_back") + 5), "call_back+5");
  tag = 5;
  EXPECT_EQ(SymGetNameFromAddress(module.entry("call_back") + 5), "n");
}

TEST(CoffNames, EngineThatWalksOnlyWithCallBacksGetsThem) {
  int refused = 0;
  using walk = BOOL(WINAPI*)(DWORD, void*, void*, STACKFRAME64*, void*, void*, void*, void*, void*);
  Replacement const own{
      velt_test::Call<walk>{"StackWalk64"}, [&](auto platform, auto... arguments) {
        std::tuple const all{arguments...};
        if (std::get<6>(all) && std::get<7>(all)) return platform(arguments...);
        *std::get<3>(all) = {};
        return ++refused, FALSE;
      }};
  plugin const module("symbols_first_plugin");
  for (int i = 0; i < 2; ++i) EXPECT_THAT(module.stack(), has_functions_of("first"));
  EXPECT_EQ(refused, 1);
}
