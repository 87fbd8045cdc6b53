#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "tests/diagnostics/Fakes.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/faults/StructuredException.h"

using velt_test::fakes;
using velt_test::Fresh;

// Nothing but a bool is taken for one.
template <class... Others>
constexpr bool none_makes_one = (!std::is_constructible_v<EGeneric, Others> && ...);
static_assert(none_makes_one<char const*, char const (&)[5], wchar_t*, EGeneric*, std::nullptr_t,
                             int, double, _value_t, void (&)()>);

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
  EXPECT_EQ(names_of(EGeneric(true)), "MiniDump ");
  EXPECT_FALSE(fakes().with_exception);
  VeltDebugSetup(true);
  EXPECT_EQ(names_of(EGeneric(true)), "MiniDump Stack ") << "nobody is to blame";
  EXPECT_EQ(names_of(EGeneric(false)), "");
  SaveMiniDumpOnCppException = false;
  auto const exception = make_with_information();
  EXPECT_EQ(names_of(exception), "Stack ");
  EXPECT_EQ(function_around(first_address_of(exception)),
            function_around(reinterpret_cast<unsigned __int64>(&make_with_information)));

  SaveMiniDumpOnCppException = fakes().throws_are_watched = true;
  fakes().calls.clear();
  EXPECT_EQ(names_of(EGeneric(true)), "");
  EXPECT_EQ(fakes().calls, "");
  EXPECT_EQ(fakes().holds, 0);
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
  SaveMiniDumpOnStructuredException = false;
  Records records;
  records.context.Rip = 9;
  Opened<EGeneric> of_throw, of_fault;
  of_throw.ExtendDebugInformation(&records.context);
  of_fault.ExtendDebugInformation(&records.pointers);
  EXPECT_STREQ(of_throw.what(), "ModuleName: \nAddressName: name of 9");
  EXPECT_STREQ(of_fault.what(), of_throw.what());
}

TEST(DebugInformation, OfAThrowLeavesTheDumpOfAFaultToTheFault) {
  Fresh const fresh;
  Records records;
  Opened<EStructuredException> fault;
  Opened<EGeneric> thrown;
  fault.ExtendDebugInformation(&records.context);
  thrown.ExtendDebugInformation(&records.context);
  EXPECT_EQ(names_of(fault), "");
  EXPECT_EQ(names_of(thrown), "MiniDump ");
}

TEST(DebugInformation, OfAFaultIsRuledByTwoSettings) {
  Fresh const fresh;
  fakes().frames = {1, 2};
  fakes().modules[2] = "svc";
  Records records;
  for (bool const dump : {false, true})
    for (bool const extended : {false, true}) {
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

  SaveMiniDumpOnStructuredException = false;
  records.pointers.ContextRecord = nullptr;
  Opened<EGeneric> without_context;
  without_context.ExtendDebugInformation(&records.pointers);
  EXPECT_EQ(names_of(without_context), "Stack ") << "of the caller";
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
