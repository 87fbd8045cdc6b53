#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "tests/diagnostics/Fakes.h"
#include "velt/diagnostics/Settings.h"
#include "velt/diagnostics/StructuredException.h"
#include "velt/exceptions/EGeneric.h"

using velt_test::fakes;
using velt_test::Fresh;

// Nothing but a bool is taken for one.
static_assert(std::is_constructible_v<EGeneric, bool>);
static_assert(!std::is_constructible_v<EGeneric, char const*>);
static_assert(!std::is_constructible_v<EGeneric, char const (&)[5]>);
static_assert(!std::is_constructible_v<EGeneric, wchar_t*>);
static_assert(!std::is_constructible_v<EGeneric, EGeneric*>);
static_assert(!std::is_constructible_v<EGeneric, std::nullptr_t>);
static_assert(!std::is_constructible_v<EGeneric, int>);
static_assert(!std::is_constructible_v<EGeneric, double>);
static_assert(!std::is_constructible_v<EGeneric, _value_t>);
static_assert(!std::is_constructible_v<EGeneric, void (&)()>);

namespace {

template <class Base>
struct Opened : Base {
  using Base::Base;
  using Base::ExtendDebugInformation;
};

std::string names_of(EGeneric const& exception) {
  std::string names;
  for (auto const& value : exception.values()) names += value.first + " ";
  return names;
}

struct Records {
  EXCEPTION_RECORD record{};
  CONTEXT context{};
  EXCEPTION_POINTERS pointers{&record, &context};
};

[[gnu::noinline]] EGeneric make_with_information() {
  EGeneric exception(true);
  fakes().calls += "";  // so that the making is not the last thing done here
  return exception;
}

// Where the function begins that the address lies in.
void const* function_around(unsigned __int64 address) {
  unsigned __int64 image;
  auto const entry = RtlLookupFunctionEntry(address, &image, nullptr);
  return entry ? reinterpret_cast<void const*>(image + entry->BeginAddress) : nullptr;
}

unsigned __int64 first_address_of(EGeneric const& exception) {
  auto const stack = exception.get_value("Stack").as_string();
  return std::stoull(stack.substr(std::string("stack of ").size()));
}

}  // namespace

TEST(DebugInformation, IsGatheredByTheConstructorOnlyIfThrowsAreNotWatched) {
  Fresh const fresh;
  EXPECT_EQ(names_of(EGeneric(false)), "");
  EXPECT_EQ(names_of(EGeneric(true)), "MiniDump ");
  EXPECT_FALSE(fakes().with_exception);
  VeltDebugSetup(true);
  EXPECT_EQ(names_of(EGeneric(true)), "MiniDump Stack ") << "nobody is to blame";
  SaveMiniDumpOnCppException = false;
  EXPECT_EQ(names_of(EGeneric(true)), "Stack ");
  EXPECT_EQ(names_of(EGeneric(false)), "");

  SaveMiniDumpOnCppException = true;
  fakes().calls.clear();
  fakes().throws_are_watched = true;
  EXPECT_EQ(names_of(EGeneric(true)), "");
  VeltDebugSetup(false);
  EXPECT_EQ(names_of(EGeneric(true)), "");
  EXPECT_EQ(fakes().calls, "");
  EXPECT_EQ(fakes().holds, 0);
}

TEST(DebugInformation, OfTheConstructorBeginsAtItsCaller) {
  Fresh const fresh;
  VeltDebugSetup(true);
  SaveMiniDumpOnCppException = false;
  auto const exception = make_with_information();
  EXPECT_EQ(function_around(first_address_of(exception)),
            function_around(reinterpret_cast<unsigned __int64>(&make_with_information)));
}

TEST(DebugInformation, OfAThrowNamesModuleAddressAndStack) {
  Fresh const fresh;
  VeltDebugSetup(true);
  fakes().throws_are_watched = true;
  fakes().frames = {1, 2, 3};
  fakes().modules[2] = "svc";
  Records records;
  Opened<EGeneric> exception({"Text", "t"});
  exception.ExtendDebugInformation(&records.context);
  EXPECT_STREQ(exception.what(),
               "Text: t\nModuleName: svc\nAddressName: name of 2\nStack: stack of 1 2 3");
  EXPECT_EQ(fakes().walked, &records.context);
  EXPECT_EQ(fakes().walked_thread, GetCurrentThread());
  EXPECT_EQ(fakes().skipped, 0u);
  EXPECT_EQ(fakes().holds, 0);
}

TEST(DebugInformation, BlamesTheInstructionIfNoFrameIsToBlame) {
  Fresh const fresh;
  VeltDebugSetup(true);
  fakes().throws_are_watched = true;
  Records records;
  records.context.Rip = 9;
  Opened<EGeneric> of_throw, of_fault;
  of_throw.ExtendDebugInformation(&records.context);
  EXPECT_STREQ(of_throw.what(), "ModuleName: \nAddressName: name of 9");
  SaveMiniDumpOnStructuredException = false;
  of_fault.ExtendDebugInformation(&records.pointers);
  EXPECT_STREQ(of_fault.what(), of_throw.what());
}

TEST(DebugInformation, OfAThrowLeavesTheDumpOfAFaultToTheFault) {
  Fresh const fresh;
  Records records;
  Opened<EStructuredException> fault;
  fault.ExtendDebugInformation(&records.context);
  EXPECT_EQ(names_of(fault), "");
  Opened<EGeneric> thrown;
  thrown.ExtendDebugInformation(&records.context);
  EXPECT_EQ(names_of(thrown), "MiniDump ");
  EXPECT_FALSE(fakes().with_exception);
}

TEST(DebugInformation, OfAFaultIsRuledByTwoSettings) {
  Fresh const fresh;
  fakes().frames = {1, 2};
  fakes().modules[2] = "svc";
  Records records;
  for (bool const watched : {false, true})
    for (bool const dump : {false, true})
      for (bool const extended : {false, true}) {
        fakes().throws_are_watched = watched;
        SaveMiniDumpOnStructuredException = dump;
        VeltDebugSetup(extended);
        fakes().calls.clear();
        Opened<EGeneric> fault;
        fault.ExtendDebugInformation(&records.pointers);
        EXPECT_EQ(names_of(fault), std::string(dump ? "MiniDump " : "") +
                                       (extended ? "ModuleName AddressName Stack " : ""));
        EXPECT_EQ(fakes().calls.empty(), !dump);
        EXPECT_EQ(fakes().holds, 0);
      }
  EXPECT_EQ(fakes().exception.ExceptionPointers, &records.pointers);
  EXPECT_EQ(fakes().exception.ThreadId, GetCurrentThreadId());
}

TEST(DebugInformation, OfAFaultWithoutContextIsThatOfTheCaller) {
  Fresh const fresh;
  SaveMiniDumpOnStructuredException = false;
  VeltDebugSetup(true);
  Records records;
  records.pointers.ContextRecord = nullptr;
  Opened<EGeneric> fault;
  fault.ExtendDebugInformation(&records.pointers);
  EXPECT_EQ(names_of(fault), "Stack ");
  EXPECT_EQ(fakes().skipped, 3u);
}

TEST(DebugInformation, KeepsTheListIfTheEngineIsMissing) {
  Fresh const fresh;
  VeltDebugSetup(true);
  fakes().engine_is_there = false;
  Records records;
  Opened<EGeneric> exception({"Text", "t"});
  exception.ExtendDebugInformation(&records.context);
  exception.ExtendDebugInformation(&records.pointers);
  EXPECT_STREQ(exception.what(), "t");
  EXPECT_EQ(fakes().holds, 0);
}

TEST(BuildStack, WalksTheContextOfTheRecords) {
  Fresh const fresh;
  fakes().frames = {1, 2, 3};
  Records records;
  auto const thread = ULongToHandle(8);
  EXPECT_EQ(EGeneric::BuildStack(&records.pointers, 5, thread), "stack of 1 2 3");
  EXPECT_EQ(fakes().walked, &records.context);
  EXPECT_EQ(fakes().walked_thread, thread);
  EXPECT_EQ(fakes().skipped, 5u);
  EXPECT_NE(EGeneric::BuildStack(nullptr, 0, GetCurrentThread()), "stack of");
}
