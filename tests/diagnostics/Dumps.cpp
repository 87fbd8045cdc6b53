// Dumps and what else the diagnostics add to an exception. In place of the
// platform's writer, which takes seconds, stands one of the test's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Imports.h"
#include "tests/support/LoaderOwner.h"
#include "tests/support/SkippedValues.h"
#include "velt/diagnostics/DebugSnapshot.h"
#include "velt/diagnostics/MiniDump.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/faults/StructuredException.h"
#include "velt/symbols/Symbols.h"
#include "velt/threads/ThreadTask.h"

using testing::HasSubstr;
using velt_test::Replacement;

namespace {

// What the writer is told, and what it does. The smallest dump that is whole has
// nothing but a header of 32 bytes.
struct {
  int dumps = 0;
  DWORD thread = 0;
  DWORD faulting_thread = 0;  // 0 without a fault
  MINIDUMP_TYPE type{};
  std::string content = std::string("MDMP\0\0\0\0\0\0\0\0\x20", 13) + std::string(19, '\0');
  std::function<void()> meanwhile = [] {};
} writer;

// Without a content the platform writes.
auto const write = [](auto platform, HANDLE process, DWORD id, HANDLE file, MINIDUMP_TYPE type,
                      auto exception, auto... none) -> BOOL {
  if (writer.content.empty()) return platform(process, id, file, type, exception, none...);
  ++writer.dumps;
  writer.thread = GetCurrentThreadId();
  writer.type = type;
  writer.faulting_thread = exception ? exception->ThreadId : 0;
  writer.meanwhile();
  DWORD written;
  return WriteFile(file, writer.content.data(), DWORD(writer.content.size()), &written, nullptr);
};

// With the settings as at the start of a program, and a folder of its own.
class Dumps : public testing::Test {
protected:
  static void SetUpTestSuite() { SkipModulesForError += ";libgcc_s_seh-1;libstdc++-6"; }
  Dumps() {
    SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = UseVEH = true;
    MiniDumpExcludedTypes = "C++";
    std::filesystem::current_path(folder.path());
    writer = {};
    SymInitialize();  // loaded once for all of a test
  }
  ~Dumps() override {
    for (; holds; --holds) SymCleanup();
    EXPECT_FALSE(GetModuleHandleW(L"dbghelp")) << "somebody holds the engine";
    SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = false;
    VeltDebugSetup(false);
    std::filesystem::current_path(before);
  }

  int holds = 1;  // on the engine: one more is left of each dump that was given up
  std::filesystem::path const before = std::filesystem::current_path();
  velt_test::scratch_folder const folder;
  Replacement<decltype(&MiniDumpWriteDump), decltype(write)> const replaced{
      VELT_CALL(MiniDumpWriteDump), write};
};

auto count_of_files() { return std::distance(std::filesystem::directory_iterator("Dumps"), {}); }

// A dump without records, as a program asks for one.
std::string save() { return EGeneric::SaveMiniDump(nullptr, 2, GetCurrentThreadId()); }

// The exception as its handler finds it.
template <class Statement>
EGeneric caught(Statement const& statement) {
  try {
    statement();
  } catch (EGeneric& error) {
    return error;
  } catch (...) {
  }
  return {};
}

template <class Thrown>
EGeneric thrown(Thrown const& what) {
  return caught([&] { throw Thrown(what); });
}

[[gnu::noipa]] int read_there(int const volatile* address) { return *address; }

EGeneric fault() {
  temporary_redirect_structured_exceptions const translated;
  return caught([] { read_there(nullptr); });
}

std::string names_of(EGeneric const& error) {
  std::string names;
  for (auto const& value : error.values()) names += value.first + " ";
  return names;
}

std::string const of_fault = "Text Code Address Parameter0 Parameter1 ";

// Takes the locks that a writer may need.
void be_busy() {
  HeapFree(GetProcessHeap(), 0, HeapAlloc(GetProcessHeap(), 0, 3000));
  operator delete(operator new(3000));
  SetEnvironmentVariableW(L"VELT_DUMPS", L"1");
  FreeLibrary(LoadLibraryW(L"winmm"));
  thrown(1);
}

}  // namespace

TEST(DebugSnapshot, ShowsAThreadThatHangsInTheLoaderUnlessTheEngineIsMissing) {
  ASSERT_TRUE(SymInitialize());
  auto const text = TakeDebugSnapshot();
  EXPECT_THAT(text, testing::StartsWith("Snapshot taked on "));
  EXPECT_THAT(text, HasSubstr("---\n\n-> ntdll!"));
  {
    velt_test::loader_owner const owner;
    EXPECT_THAT(TakeDebugSnapshot(), HasSubstr("sleep_in_loader+"));
  }
  SymCleanup();
  {
    // Seconds of patience pass ten times as fast.
    Replacement const fast{VELT_CALL(GetTickCount64),
                                      [](auto platform) { return platform() * 10; }};
    velt_test::loader_owner const owner;
    EXPECT_EQ(TakeDebugSnapshot(), "");
  }
  EXPECT_NE(TakeDebugSnapshot(), "");
  EXPECT_FALSE(GetModuleHandleW(L"dbghelp")) << "it is loaded for the snapshot only";
}

TEST_F(Dumps, AreNamedAfterModuleKindAndTime) {
  Replacement const clock{VELT_CALL(GetLocalTime),
                          [](auto, SYSTEMTIME* now) { *now = {2024, 3, 2, 5, 9, 7, 3, 42}; }};
  std::string const time = "_2024_03_05_09_07_03_042";
  EXPECT_EQ(fault()["MiniDump"].as_string(), "Dumps\\diagnostics_tests_C0000005" + time + ".dmp");
  EXPECT_EQ(thrown(EGeneric({"modulename", L"own name"}))["MiniDump"].as_string(),
            "Dumps\\own name_EGeneric" + time + ".dmp");
  EXPECT_EQ(save(), "Dumps\\diagnostics_tests_Dump" + time + ".dmp");
  EXPECT_EQ(save(), "Dumps\\diagnostics_tests_Dump" + time + "_2.dmp") << "both are kept";
  thrown(std::hash<std::byte>());
  thrown(std::bad_alloc());
  for (auto const kind : {"hashstdbyte", "bad_alloc"})
    EXPECT_TRUE(std::filesystem::exists("Dumps\\diagnostics_tests_" + (kind + time) + ".dmp"));
  thrown(static_cast<char const*>("no name of a file"));
  thrown(EGeneric({"ModuleName", std::string(260, 'm')}));
  EXPECT_EQ(count_of_files(), 6);
  holds += 2;
}

TEST_F(Dumps, TellTheWriterOfTheFault) {
  MiniDumpType = MiniDumpWithDataSegs;
  fault();
  MiniDumpType = MiniDumpNormal;
  EXPECT_EQ(writer.type, MiniDumpWithDataSegs);
  EXPECT_EQ(writer.faulting_thread, GetCurrentThreadId());
  EXPECT_EQ(writer.thread, GetCurrentThreadId());
  save();
  EXPECT_NE(writer.thread, GetCurrentThreadId()) << "or the caller had no context";

  EXCEPTION_RECORD record{};
  CONTEXT context{};
  EXCEPTION_POINTERS incomplete[] = {{&record, nullptr}, {nullptr, &context}, {}};
  for (auto& pointers : incomplete) {
    EXPECT_TRUE(WriteMiniDump("a.dmp", &pointers, 0, 4711));
    EXPECT_EQ(writer.faulting_thread, 0u) << "the writer would follow a null pointer";
  }
}

TEST_F(Dumps, AreGivenUpWithoutTheLoaderOrTheEngine) {
  {
    velt_test::loader_owner const other;
    EXPECT_EQ(save(), "");
  }
  {
    Replacement const refused{VELT_CALL(LdrLockLoaderLock),
                              [](auto, ULONG, ULONG* state, auto) -> NTSTATUS {
                                *state = 2;
                                return 0;
                              }};
    EXPECT_EQ(save(), "");
  }
  EXPECT_EQ(count_of_files(), 2) << "empty files are left";
  for (int left = 3; left; --left) SymCleanup();
  Replacement const missing{VELT_CALL(LoadLibraryA), [](auto...) { return HMODULE(); }};
  EXPECT_EQ(save(), "");
  EXPECT_EQ(names_of(fault()), of_fault);
  EXPECT_EQ(writer.dumps, 0);
  holds = 0;
}

// By the platform's writer, and then cut as on a disk that became full.
TEST_F(Dumps, HoldTheFaultAndAreDeletedUnlessTheyAreWhole) {
  writer.content.clear();
  auto const whole = velt_test::content_of(fault()["MiniDump"].as_string());
  DWORD const stream[] = {GetCurrentThreadId(), 0, EXCEPTION_ACCESS_VIOLATION};
  EXPECT_NE(whole.find({reinterpret_cast<char const*>(stream), sizeof stream}), whole.npos);

  for (auto const size : {std::size_t(20), whole.size() / 2, whole.size() - 1, whole.size()}) {
    writer.content = whole.substr(0, size);
    EXPECT_EQ(names_of(thrown(EGeneric())), size == whole.size() ? "MiniDump " : "") << size;
  }
  EXPECT_EQ(count_of_files(), 2);
}

// The dump tells of the first throw, and what follows copies it.
TEST_F(Dumps, StayWithAnExceptionThatIsThrownAgain) {
  VeltDebugSetup(true);
  auto const error = fault();
  auto const task = MakeThreadTask([&] { throw EGeneric(error); });
  std::thread([&] { task->Run(nullptr); }).join();
  auto const kept = caught([&] { task->RethrowException(); });
  for (auto const& each : {error, thrown(error), kept}) {
    EXPECT_EQ(names_of(each), of_fault + "MiniDump ModuleName AddressName Stack ");
    EXPECT_EQ(each["MiniDump"].as_string(), error["MiniDump"].as_string());
  }
  EXPECT_EQ(writer.dumps, 1);
}

TEST_F(Dumps, AndWhatElseIsAddedFollowTheSettings) {
  EGeneric const plain({"Text", "a"});
  for (bool const dump : {false, true})
    for (bool const extended : {false, true}) {
      SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = dump;
      VeltDebugSetup(extended);
      std::string const file = dump ? "MiniDump " : "", place = "ModuleName AddressName ";
      EXPECT_EQ(names_of(fault()), of_fault + file + (extended ? place + "Stack " : ""));
      EXPECT_EQ(names_of(thrown(plain)), "Text " + (extended ? place + file + "Stack " : file));
    }
  EXPECT_EQ(names_of(thrown(EGeneric({"Stack", ""}))), "MiniDump Stack ") << "a stack is there";
  UseVEH = false;
  EXPECT_EQ(names_of(thrown(plain)), "Text ");
}

TEST_F(Dumps, AreWrittenForAnyTypeThatIsNotExcluded) {
  MiniDumpExcludedTypes = "EFoo;a runtime_error, ESystemException";
  thrown(1);
  thrown(std::runtime_error(""));
  thrown(ESystemException(2));
  MiniDumpExcludedTypes.clear();
  thrown(EThreadInterrupt());
  thrown(EStructuredException());
  EXPECT_EQ(writer.dumps, 1);
  // Any code may raise the code of a throw. Nobody catches it, but this handler is asked last.
  constexpr DWORD foreign = 0xE06D7363;
  auto const handler = AddVectoredExceptionHandler(0, [](EXCEPTION_POINTERS* pointers) -> LONG {
    return pointers->ExceptionRecord->ExceptionCode == foreign ? EXCEPTION_CONTINUE_EXECUTION
                                                               : EXCEPTION_CONTINUE_SEARCH;
  });
  RaiseException(foreign, 0, 0, nullptr);
  RemoveVectoredExceptionHandler(handler);
  EXPECT_EQ(writer.dumps, 2);
}

TEST_F(Dumps, LeaveTheThrowAsItIs) {
  // An alertable wait would take an interruption that is for the program's next one.
  static std::atomic<int> waits;
  Replacement const waiting{VELT_CALL(WaitForSingleObjectEx),
                            [](auto platform, HANDLE handle, DWORD time, BOOL alertable) {
                              ++waits;
                              EXPECT_FALSE(alertable);
                              return platform(handle, time, alertable);
                            }};
  VeltDebugSetup(true);
  writer.meanwhile = [] {
    thrown(EGeneric());
    SetLastError(1);
  };
  SetLastError(4711);
  thrown(1);
  EXPECT_EQ(GetLastError(), 4711u);
  EXPECT_EQ(writer.dumps, 1) << "the handler does not watch itself";
  fault();
  EXPECT_GT(waits, 0);

  Replacement const failing{VELT_CALL(GetLocalTime),
                            [](auto...) { throw std::runtime_error("full"); }};
  EXPECT_EQ(names_of(thrown(EGeneric())), "ModuleName AddressName Stack ");
}

// Everybody else is stopped meanwhile, and has none of the writer's locks.
TEST_F(Dumps, AreWrittenByAWriterWithAThreadOfItsOwn) {
  SaveMiniDumpOnCppException = false;
  std::atomic<int> steps = 0;
  writer.meanwhile = [&] {
    int const before_write = steps;
    std::thread(be_busy).join();
    EXPECT_EQ(steps, before_write) << "or they ran on after half a minute";
  };
  std::vector<std::jthread> threads;
  while (threads.size() != 30)
    threads.emplace_back([&](std::stop_token stop) {
      for (; !stop.stop_requested(); ++steps) be_busy();
    });
  for (auto const end = GetTickCount64() + 20'000; writer.dumps < 3 && GetTickCount64() < end;)
    holds += save().empty();
  EXPECT_EQ(writer.dumps, 3);
}

TEST_F(Dumps, LeaveNobodyAsleepWhenTheirThreadIsKilled) {
  writer.meanwhile = [] { TerminateThread(GetCurrentThread(), 7); };
  for (; writer.dumps == 0; ++holds) std::thread(fault).join();
  holds += 2;                      // it had three,
  velt_test::skipped_values += 5;  // and the values of its fault
  writer.meanwhile = [] {};
  EXPECT_NE(save(), "");
}
