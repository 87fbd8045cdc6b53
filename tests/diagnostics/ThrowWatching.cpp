// The watch on throws, with fakes of what it calls.
#include <gtest/gtest.h>
#include <windows.h>

#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "velt/diagnostics/Settings.h"
#include "velt/diagnostics/ThrowWatchingInternal.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/faults/StructuredException.h"
#include "velt/faults/TranslatorInternal.h"
#include "velt/symbols/Symbols.h"

extern "C" decltype(&GetProcAddress) __real___imp_GetProcAddress;
extern "C" decltype(&GetProcAddress) __wrap___imp_GetProcAddress;

namespace {

struct Fakes {
  std::string calls;
  void (*while_extending)() = [] {};
  void (*while_dumping)() = [] {};
  int dumps = 0;
  std::string path = "dump ";  // a number is appended

  void called(char const* name) { calls.append(calls.empty() ? "" : " ").append(name); }
};
thread_local Fakes fakes;

std::string missing_entry;  // that the platform is not to know

}  // namespace

bool SymInitialize() {
  fakes.called("hold");
  return true;
}

void SymCleanup() { fakes.called("release"); }

std::string EGeneric::SaveMiniDump(_EXCEPTION_POINTERS* pointers, unsigned long type,
                                   unsigned long thread_id) {
  fakes.called("dump");
  EXPECT_TRUE(pointers->ContextRecord);
  EXPECT_EQ(type, MiniDumpType);
  EXPECT_EQ(thread_id, GetCurrentThreadId());
  fakes.while_dumping();
  return fakes.path.empty() ? "" : fakes.path + std::to_string(++fakes.dumps);
}

void EGeneric::ExtendDebugInformation(_CONTEXT* context) {
  fakes.called("extend");
  EXPECT_TRUE(context);
  fakes.while_extending();
  put_value("ModuleName", "module");
  put_value("Stack", "stack");
}

decltype(&GetProcAddress) __wrap___imp_GetProcAddress = [](HMODULE module, char const* name) {
  return name == missing_entry ? nullptr : __real___imp_GetProcAddress(module, name);
};

// Names that the default list of exclusions happens to contain.
struct C {};
struct Exception {};

namespace {

class ThrowWatching : public ::testing::Test {
protected:
  ThrowWatching() {
    fakes = {};
    UseVEH = SaveMiniDumpOnCppException = ExtendDebugInformationFromException = true;
    MiniDumpExcludedTypes = default_exclusions;
    velt::detail::start_watching_throws();
  }
  ~ThrowWatching() override { velt::detail::stop_watching_throws(false); }

  // The calls of one throw, whose values are kept if it has some.
  template <class Error>
  std::string calls_for(Error const& thrown) {
    fakes.calls.clear();
    try {
      throw thrown;
    } catch (EGeneric& caught) {
      values.clear();
      for (auto const& [name, value] : caught.values())
        values += name + "=" + value.as_string() + ";";
    } catch (...) {
    }
    return fakes.calls;
  }

  EGeneric const error{{"Text", "a"}};
  std::string values;

private:
  inline static std::string const default_exclusions = MiniDumpExcludedTypes;
};

// Raises what no frame will take, and goes on behind it.
void raise_ignored(DWORD code) {
  auto const previous = SetUnhandledExceptionFilter(
      [](EXCEPTION_POINTERS*) -> LONG { return EXCEPTION_CONTINUE_EXECUTION; });
  RaiseException(code, 0, 0, nullptr);
  SetUnhandledExceptionFilter(previous);
}

}  // namespace

TEST_F(ThrowWatching, AttachesStackThenDumpAndPutsTheStackLast) {
  EXPECT_EQ(calls_for(error), "hold extend dump release");
  EXPECT_EQ(values, "Text=a;ModuleName=module;MiniDump=dump 1;Stack=stack;");
  fakes.path.clear();
  calls_for(error);
  EXPECT_EQ(values, "Text=a;ModuleName=module;Stack=stack;") << "there is no dump";
}

TEST_F(ThrowWatching, DoesWhatTheSettingsAskFor) {
  ExtendDebugInformationFromException = false;
  EXPECT_EQ(calls_for(error), "dump");
  SaveMiniDumpOnCppException = false;
  EXPECT_EQ(calls_for(error), "");
  ExtendDebugInformationFromException = true;
  EXPECT_EQ(calls_for(error), "hold extend release");
  UseVEH = false;
  EXPECT_EQ(calls_for(error), "");
  SaveMiniDumpOnCppException = UseVEH = true;
  EXPECT_EQ(calls_for(error), "hold extend dump release");
}

TEST_F(ThrowWatching, LeavesAStackThatIsThereAndReplacesTheDump) {
  try {
    throw EGeneric(error);
  } catch (EGeneric& caught) {
    EXPECT_EQ(calls_for(caught), "dump");
    EXPECT_EQ(values, "Text=a;ModuleName=module;MiniDump=dump 2;Stack=stack;");
  }
  EXPECT_EQ(calls_for(EGeneric({"Stack", ""})), "dump");
  EXPECT_EQ(calls_for(EGeneric({"Stack", std::vector<int>()})), "hold extend dump release");
}

TEST_F(ThrowWatching, DumpsForOtherTypesUnlessTheyAreExcluded) {
  EXPECT_EQ(calls_for(1), "dump");
  EXPECT_EQ(calls_for(std::runtime_error("")), "dump");
  EXPECT_EQ(calls_for(C()), "") << "a part of \"C++\"";
  EXPECT_EQ(calls_for(Exception()), "") << "a part of \"EStructuredException\"";

  MiniDumpExcludedTypes = "EFoo;runtime_error, ESystemException";
  EXPECT_EQ(calls_for(std::runtime_error("")), "");
  EXPECT_EQ(calls_for(C()), "dump");
  EXPECT_EQ(calls_for(ESystemException(2)), "hold extend release");
}

TEST_F(ThrowWatching, LeavesFaultsAndInterruptsAlone) {
  MiniDumpExcludedTypes.clear();
  EXPECT_EQ(calls_for(EStructuredException()), "");
  EXPECT_EQ(calls_for(EThreadInterrupt()), "");
  raise_ignored(EXCEPTION_ACCESS_VIOLATION);
  EXPECT_EQ(fakes.calls, "");
}

// What another compiler's run time throws without an operand.
TEST_F(ThrowWatching, CallsAnUnknownTypeByTheLanguage) {
  raise_ignored(0xE06D7363);
  EXPECT_EQ(fakes.calls, "");
  MiniDumpExcludedTypes = "something else";
  raise_ignored(0xE06D7363);
  EXPECT_EQ(fakes.calls, "dump");
}

TEST_F(ThrowWatching, DropsWhatIsThrownMeanwhile) {
  fakes.while_extending = [] { throw EThreadInterrupt(); };
  EXPECT_EQ(calls_for(error), "hold extend release");
  EXPECT_EQ(values, "Text=a;");

  fakes.while_extending = [] {};
  fakes.while_dumping = [] { throw std::runtime_error("full"); };
  EXPECT_EQ(calls_for(error), "hold extend dump release");
  EXPECT_EQ(values, "Text=a;ModuleName=module;Stack=stack;");

  fakes.while_dumping = [] {};
  EXPECT_EQ(calls_for(error), "hold extend dump release") << "as before";
}

TEST_F(ThrowWatching, DoesNotWatchItself) {
  fakes.while_dumping = [] {
    try {
      throw EGeneric({"Text", "inner"});
    } catch (EGeneric& inner) {
      EXPECT_EQ(inner.values().size(), 1u);
    }
  };
  EXPECT_EQ(calls_for(error), "hold extend dump release");
}

TEST_F(ThrowWatching, IsAskedFirstAndAnswersThatTheSearchGoesOn) {
  velt::detail::stop_watching_throws(false);
  void* const other = AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS*) -> LONG {
    fakes.called("other");
    return EXCEPTION_CONTINUE_SEARCH;
  });
  velt::detail::start_watching_throws();
  EXPECT_EQ(calls_for(EGeneric()), "hold extend dump release other");
  RemoveVectoredExceptionHandler(other);
}

TEST_F(ThrowWatching, LeavesTheLastErrorAlone) {
  fakes.while_dumping = [] { SetLastError(1); };
  try {
    SetLastError(4711);
    throw 1;
  } catch (int) {
    EXPECT_EQ(GetLastError(), 4711u);
  }
}

TEST_F(ThrowWatching, ServesManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread)
    threads.emplace_back([thread] {
      fakes.path = "dump " + std::to_string(thread) + " ";
      for (int i = 1; i <= 200; ++i) try {
          throw EGeneric();
        } catch (EGeneric& caught) {
          EXPECT_EQ(caught["MiniDump"].as_string(), fakes.path + std::to_string(i));
          EXPECT_EQ(caught.values().back().first, "Stack");
        }
    });
  for (auto& each : threads) each.join();
}

TEST_F(ThrowWatching, EndsWithTheLibraryAndNeedsBothEntriesOfThePlatform) {
  EXPECT_TRUE(velt::detail::throws_are_watched());
  velt::detail::stop_watching_throws(false);
  for (char const* name : {"AddVectoredExceptionHandler", "RemoveVectoredExceptionHandler"}) {
    missing_entry = name;
    velt::detail::start_watching_throws();
    EXPECT_FALSE(velt::detail::throws_are_watched());
    EXPECT_EQ(calls_for(EGeneric()), "");
  }
  missing_entry.clear();
}
