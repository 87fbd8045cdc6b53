// What a handler finds in an exception, with the real engine and real dumps.
#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <string>

#include "tests/support/ChildProcess.h"
#include "velt/diagnostics/Settings.h"
#include "velt/diagnostics/StructuredException.h"
#include "velt/diagnostics/Symbols.h"

namespace {

struct EAlarm : EGeneric {
  using EGeneric::EGeneric;
};

// A folder of its own as the current one, and all that there is to have. The
// innermost frames of a throw are those of the compiler's run time.
class EndToEnd : public ::testing::Test {
protected:
  EndToEnd() {
    std::filesystem::current_path(folder.path());
    VeltDebugSetup(true);
    SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = true;
    SkipModulesForError += ";libgcc_s_seh-1;libstdc++-6";
  }
  ~EndToEnd() override {
    SkipModulesForError = skipped;
    SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = false;
    VeltDebugSetup(false);
    std::filesystem::current_path(folder.path().parent_path());
  }

private:
  velt_test::scratch_folder folder;
  std::string const skipped = SkipModulesForError;
};

std::string names(EGeneric const& error) {
  std::string list;
  for (auto const& [name, value] : error.values()) list += name + " ";
  return list;
}

std::string innermost(EGeneric const& error) {
  auto const stack = error["Stack"].as_string();
  return stack.substr(stack.rfind('\n') + 1);
}

[[gnu::noipa]] int read(int const volatile* address) { return *address; }
[[gnu::noipa]] void raise_alarm() { throw EAlarm({"Text", "alarm"}); }

}  // namespace

TEST_F(EndToEnd, FaultBringsDumpPlaceAndStack) {
  temporary_redirect_structured_exceptions const translated;
  try {
    read(reinterpret_cast<int const volatile*>(0x10));
    FAIL();
  } catch (EStructuredException& error) {
    EXPECT_EQ(names(error),
              "Text Code Address Parameter0 Parameter1 MiniDump ModuleName AddressName Stack ");
    EXPECT_EQ(error["ModuleName"].as_string(), "diagnostics_tests");
    auto const path = error["MiniDump"].as_string();
    EXPECT_TRUE(path.starts_with("Dumps\\diagnostics_tests_C0000005_")) << path;
    EXPECT_TRUE(velt_test::content_of(path).starts_with("MDMP"));
    EXPECT_EQ(innermost(error), "-> " + error["AddressName"].as_string());
    EXPECT_NE(innermost(error).find("read"), std::string::npos) << innermost(error);
  }
}

TEST_F(EndToEnd, ThrowBringsPlaceDumpAndStack) {
  try {
    raise_alarm();
    FAIL();
  } catch (EAlarm& error) {
    EXPECT_EQ(names(error), "Text ModuleName AddressName MiniDump Stack ");
    EXPECT_EQ(error["ModuleName"].as_string(), "diagnostics_tests");
    auto const path = error["MiniDump"].as_string();
    EXPECT_TRUE(path.starts_with("Dumps\\diagnostics_tests_")) << path;
    EXPECT_NE(path.find("EAlarm_"), path.npos) << path;
    EXPECT_TRUE(velt_test::content_of(path).starts_with("MDMP"));
    auto const place = error["AddressName"].as_string();
    EXPECT_NE(place.find("raise_alarm"), place.npos) << place;
    EXPECT_NE(error["Stack"].as_string().find("\n-> " + place), place.npos);
  }
  EXPECT_FALSE(GetModuleHandleA("dbghelp.dll")) << "the engine is still held";
}
