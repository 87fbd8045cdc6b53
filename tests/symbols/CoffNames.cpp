// Names of functions in modules whose debug information the engine cannot read.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>

#include "tests/support/Imports.h"
#include "velt/symbols/Symbols.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

struct engine {
  engine() { EXPECT_TRUE(SymInitialize()); }
  ~engine() { SymCleanup(); }
};

class plugin {
public:
  explicit plugin(std::string const& name) : module(LoadLibraryA((name + ".dll").c_str())) {
    EXPECT_TRUE(module) << name;
  }
  ~plugin() { FreeLibrary(module); }

  std::uintptr_t base() const { return reinterpret_cast<std::uintptr_t>(module); }
  std::uintptr_t entry(char const* name) const {
    return reinterpret_cast<std::uintptr_t>(GetProcAddress(module, name));
  }
  std::string stack() const {
    std::string text;
    auto const store = [](void* result) {
      *static_cast<std::string*>(result) = GetMyDebugStack();
      return 0;
    };
    reinterpret_cast<int (*)(int (*)(void*), void*)>(entry("call_back"))(store, &text);
    return text;
  }

private:
  HMODULE const module;
};

auto names_functions_of(std::string const& module, std::string const& folder) {
  auto const line = "\n-> " + module + "!";
  return AllOf(StartsWith("\n-> ntdll!"), HasSubstr(line + "call_back+"),
               HasSubstr(line + folder + "::reader<int>::read+"),
               HasSubstr(line + folder + "::call+"));
}

std::string answered_name;
ULONG answered_tag;

BOOL answer_symbol(decltype(&SymFromAddr), HANDLE, DWORD64, DWORD64* displacement,
                   SYMBOL_INFO* symbol) {
  *displacement = 3;
  symbol->Tag = answered_tag;
  std::strcpy(symbol->Name, answered_name.c_str());
  return TRUE;
}

}  // namespace

TEST(CoffNames, FunctionsAreNamedFromTheFile) {
  engine const held;
  plugin const first("symbols_first_plugin"), stripped("symbols_stripped_plugin");
  EXPECT_THAT(first.stack(), names_functions_of("symbols_first_plugin", "first"));
  EXPECT_THAT(stripped.stack(), HasSubstr("\n-> symbols_stripped_plugin!+"));
  EXPECT_EQ(SymGetFullNameFromAddress(first.entry("call_back")), "symbols_first_plugin!call_back");
  // Neither in front of the section with the functions nor behind it.
  EXPECT_EQ(SymGetFullNameFromAddress(first.base() + 0xFFF), "symbols_first_plugin!+fff");
  EXPECT_THAT(SymGetFullNameFromAddress(first.entry("some_data") + 1),
              StartsWith("symbols_first_plugin!+"));
}

TEST(CoffNames, ModuleAtTheBaseOfAnotherHasItsOwnNames) {
  engine const held;
  std::uintptr_t base = 0;
  for (auto const name : {"first", "second", "first"}) {
    plugin const module(std::string("symbols_") + name + "_plugin");
    ASSERT_TRUE(base == 0 || base == module.base());
    base = module.base();
    for (int i = 0; i < 2; ++i)  // from the cache, the second time
      EXPECT_THAT(module.stack(),
                  names_functions_of(std::string("symbols_") + name + "_plugin", name));
  }
}

TEST(CoffNames, FileThatReplacedTheLoadedOneIsNotRead) {
  engine const held;
  auto const folder = std::filesystem::temp_directory_path();
  auto const loaded = folder / "velt_replaced.dll", moved = folder / "velt_moved.dll";
  std::filesystem::copy_file("symbols_first_plugin.dll", loaded);
  {
    plugin const module((folder / "velt_replaced").string());
    std::filesystem::rename(loaded, moved);
    std::filesystem::copy_file("symbols_second_plugin.dll", loaded);
    EXPECT_THAT(module.stack(), AllOf(HasSubstr("velt_replaced!+"), Not(HasSubstr("second::"))));
  }
  for (auto const& file : {loaded, moved}) std::filesystem::remove(file);
}

TEST(CoffNames, EngineComesFirstUnlessItsNameIsOnlyPublic) {
  velt_test::Replacement const own{VELT_CALL(SymFromAddr), answer_symbol};
  engine const held;
  plugin const module("symbols_first_plugin");
  auto const address = module.entry("call_back") + 5;
  answered_name = "neighbour";
  answered_tag = 10;
  EXPECT_EQ(SymGetNameFromAddress(address), "call_back+5");
  answered_tag = 5;
  EXPECT_EQ(SymGetNameFromAddress(address), "neighbour+3");
}
