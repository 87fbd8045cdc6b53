// Names of functions in modules whose debug information the engine cannot read.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>

#include <string>
#include <tuple>

#include "tests/support/Imports.h"
#include "velt/symbols/Symbols.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

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

}  // namespace

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
  CopyFileA("symbols_first_plugin.dll", "replaced.dll", FALSE);
  {
    plugin const module("replaced");
    EXPECT_TRUE(MoveFileExA("replaced.dll", "moved.dll", MOVEFILE_REPLACE_EXISTING));
    EXPECT_TRUE(CopyFileA("symbols_second_plugin.dll", "replaced.dll", TRUE));
    EXPECT_THAT(module.stack(), HasSubstr("\n-> replaced!+"));
  }
  EXPECT_TRUE(DeleteFileA("replaced.dll") && DeleteFileA("moved.dll"));
}

TEST(CoffNames, EngineComesFirstUnlessItsNameIsOnlyPublic) {
  ULONG tag;
  velt_test::Replacement const own{
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
  velt_test::Replacement const own{
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
