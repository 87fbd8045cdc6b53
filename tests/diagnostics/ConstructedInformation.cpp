// The debug information of exceptions by the real symbol engine.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/EGeneric.h"

namespace {

// The settings as they were at the end.
class Extended {
public:
  Extended() {
    VeltDebugSetup(true);
    SaveMiniDumpOnCppException = SaveMiniDumpOnStructuredException = false;
  }
  ~Extended() {
    VeltDebugSetup(false);
    SaveMiniDumpOnCppException = SaveMiniDumpOnStructuredException = dumps;
  }

private:
  bool dumps = SaveMiniDumpOnCppException;
};

struct Constructed : EGeneric {
  [[gnu::noinline]] explicit Constructed(CONTEXT* context) {
    EXCEPTION_RECORD record{};
    EXCEPTION_POINTERS pointers{&record, context};
    ExtendDebugInformation(&pointers);
  }
};

[[gnu::noinline]] std::string stack_of_construction() {
  std::string stack = Constructed(nullptr).get_value("Stack").as_string();
  return stack + "";
}

[[gnu::noinline]] EGeneric construct_here() {
  CONTEXT context;
  RtlCaptureContext(&context);
  return Constructed(&context);
}

std::string last_line(std::string const& stack) { return stack.substr(stack.rfind('\n')); }

}  // namespace

TEST(DebugInformation, NamesWhereTheContextIs) {
  Extended const settings;
  auto const error = construct_here();
  EXPECT_EQ(error.get_value("ModuleName").as_string(), "diagnostics_tests");
  auto const address = error.get_value("AddressName").as_string();
  EXPECT_NE(address.find("construct_here"), address.npos) << address;
  EXPECT_EQ(last_line(error.get_value("Stack").as_string()), "\n-> " + address);
}

TEST(DebugInformation, WithoutContextBeginsAtTheCallerOfTheConstructor) {
  Extended const settings;
  auto const innermost = last_line(stack_of_construction());
  EXPECT_NE(innermost.find("stack_of_construction"), innermost.npos) << innermost;
}

TEST(DebugInformation, OfTheConstructorIsLeftToTheWatchOverThrows) {
  Extended const settings;
  SaveMiniDumpOnCppException = true;
  EXPECT_TRUE(EGeneric(true).values().empty());
}

TEST(BuildStack, ShowsTheCallerLast) {
  auto const stack = EGeneric::BuildStack(nullptr, 1, GetCurrentThread());
  EXPECT_NE(last_line(stack).find("TestBody"), stack.npos) << stack;
}
