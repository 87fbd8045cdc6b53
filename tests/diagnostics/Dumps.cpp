// Dumps and what else the diagnostics add to an exception. In place of the
// platform's writer, which takes seconds, stands one of the test's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>
#undef StackWalk

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Imports.h"
#include "velt/diagnostics/MiniDump.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/faults/StructuredException.h"
#include "velt/locks/Event.h"
#include "velt/symbols/Symbols.h"
#include "velt/threads/ThreadClass.h"
#include "velt/threads/ThreadTask.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace wide {
template <class T>
struct TFoo {};
}  // namespace wide

// Names that the default list of exclusions happens to contain.
struct C {};

namespace {

// What the writer is told, and what it does.
struct {
  int dumps;
  MINIDUMP_TYPE type;
  bool with_exception;
  MINIDUMP_EXCEPTION_INFORMATION exception;
  std::string content;
  std::function<void()> meanwhile;
} writer;

// The smallest dump that is whole.
std::string smallest_dump() {
  MINIDUMP_HEADER header{};
  std::memcpy(&header.Signature, "MDMP", 4);
  header.StreamDirectoryRva = sizeof header;
  return {reinterpret_cast<char const*>(&header), sizeof header};
}

auto const write_quickly = [](auto, HANDLE, DWORD, HANDLE file, MINIDUMP_TYPE type,
                              auto exception, auto...) -> BOOL {
  ++writer.dumps;
  writer.type = type;
  writer.with_exception = exception;
  if (exception) writer.exception = *exception;
  if (writer.meanwhile) writer.meanwhile();
  DWORD written;
  return WriteFile(file, writer.content.data(), DWORD(writer.content.size()), &written, nullptr);
};

struct EngineHold {
  EngineHold() { SymInitialize(); }
  ~EngineHold() { SymCleanup(); }
};
bool engine_is_loaded() { return GetModuleHandleW(L"dbghelp.dll"); }

std::vector<std::string> files() {
  std::vector<std::string> names;
  if (std::filesystem::exists("Dumps"))
    for (auto const& file : std::filesystem::directory_iterator("Dumps"))
      names.push_back(file.path().filename().string());
  std::ranges::sort(names);
  return names;
}

// With the settings as at the start of a program, and a folder of its own.
class Dumps : public testing::Test {
protected:
  Dumps() {
    std::filesystem::current_path(folder.path());
    SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = true;
    SkipModulesForError += ";libgcc_s_seh-1;libstdc++-6";
    writer = {};
    writer.content = smallest_dump();
  }
  ~Dumps() override {
    engine.reset();
    EXPECT_FALSE(engine_is_loaded()) << "somebody holds the engine";
    SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = false;
    VeltDebugSetup(false);
    UseVEH = true;
    MiniDumpType = 0;
    MiniDumpExcludedTypes = excluded;
    SkipModulesForError = not_to_blame;
    std::filesystem::current_path(before);
  }

  // A dump without records, as a program asks for one.
  static std::string save() { return EGeneric::SaveMiniDump(nullptr, 2, GetCurrentThreadId()); }

  std::string const excluded = MiniDumpExcludedTypes, not_to_blame = SkipModulesForError;
  std::filesystem::path const before = std::filesystem::current_path();
  velt_test::scratch_folder const folder;
  velt_test::Replacement<decltype(&MiniDumpWriteDump), decltype(write_quickly)> const quick{
      VELT_CALL(MiniDumpWriteDump), write_quickly};
  std::optional<EngineHold> engine{std::in_place};  // loaded once for all of a test
};

[[gnu::noipa]] int read_there(int const volatile* address) { return *address; }

template <class Thrown>
void throw_and_catch(Thrown const& thrown) {
  try {
    throw thrown;
  } catch (Thrown const&) {
  }
}

EGeneric plain() { return EGeneric({"Text", "a"}); }

// The exception as its handler finds it.
EGeneric thrown(EGeneric const& error) {
  try {
    throw EGeneric(error);
  } catch (EGeneric& caught) {
    return caught;
  }
}

EGeneric fault() {
  temporary_redirect_structured_exceptions const translated;
  try {
    read_there(reinterpret_cast<int const volatile*>(0x10));
  } catch (EStructuredException& error) {
    return error;
  }
  return {};
}

std::string names_of(EGeneric const& error) {
  std::string names;
  for (auto const& value : error.values()) names += value.first + " ";
  return names;
}

// Of a fault the values that the diagnostics add.
std::string added_to_fault() {
  std::string const own = "Text Code Address Parameter0 Parameter1 ", names = names_of(fault());
  EXPECT_THAT(names, StartsWith(own));
  return names.substr(own.size());
}

}  // namespace

TEST_F(Dumps, AreNamedAfterModuleKindAndTime) {
  velt_test::Replacement const clock{VELT_CALL(GetLocalTime), [](auto, SYSTEMTIME* now) {
                                       *now = {2024, 3, 2, 5, 9, 7, 3, 42};
                                     }};
  std::string const time = "_2024_03_05_09_07_03_042.dmp";
  EXPECT_EQ(fault()["MiniDump"].as_string(), "Dumps\\diagnostics_tests_C0000005" + time);
  EXPECT_EQ(save(), "Dumps\\diagnostics_tests_Dump" + time);
  EXPECT_EQ(thrown(EGeneric({"modulename", L"own name"}))["MiniDump"].as_string(),
            "Dumps\\own name_EGeneric" + time);
  throw_and_catch(wide::TFoo<int>());
  throw_and_catch(std::bad_alloc());
  EXPECT_THAT(files(), testing::IsSupersetOf({"diagnostics_tests_wideTFooint" + time,
                                              "diagnostics_tests_bad_alloc" + time}));

  EXPECT_EQ(save(), "Dumps\\diagnostics_tests_Dump_2024_03_05_09_07_03_042_2.dmp")
      << "there is one of that millisecond";
  EXPECT_EQ(files().size(), 6u);
}

TEST_F(Dumps, AreNotWrittenUnderANameThatNoFileCanHave) {
  throw_and_catch(static_cast<char const*>("text"));
  throw_and_catch(EGeneric({"ModuleName", std::string(260, 'm')}));
  EXPECT_EQ(writer.dumps, 0);
  engine.reset();
  for (int left = 2; left; --left) {
    EXPECT_TRUE(engine_is_loaded()) << "a hold is left of each";
    SymCleanup();
  }
}

TEST_F(Dumps, TellTheWriterOfTheFault) {
  MiniDumpType = MiniDumpWithDataSegs;
  fault();
  EXPECT_EQ(writer.type, MiniDumpWithDataSegs);
  EXPECT_TRUE(writer.with_exception);
  EXPECT_EQ(writer.exception.ThreadId, GetCurrentThreadId());

  EXCEPTION_RECORD record{};
  CONTEXT context{};
  EXCEPTION_POINTERS const incomplete[] = {{nullptr, &context}, {&record, nullptr}, {}};
  for (EXCEPTION_POINTERS pointers : incomplete) {
    EXPECT_TRUE(WriteMiniDump("a.dmp", &pointers, 0, 4711));
    EXPECT_FALSE(writer.with_exception) << "the writer would follow a null pointer";
  }
}

TEST_F(Dumps, AreGivenUpWhileAnotherThreadHasTheLoader) {
  TEvent taken, give_back;
  std::thread loader([&] {
    auto const ntdll = GetModuleHandleW(L"ntdll");
    ULONG_PTR cookie;
    reinterpret_cast<LONG(NTAPI*)(ULONG, ULONG*, ULONG_PTR*)>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "LdrLockLoaderLock")))(0, nullptr, &cookie);
    taken.SetEvent();
    WaitForSingleObject(give_back, INFINITE);
    reinterpret_cast<LONG(NTAPI*)(ULONG, ULONG_PTR)>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "LdrUnlockLoaderLock")))(0, cookie);
  });
  WaitForSingleObject(taken, INFINITE);
  EXPECT_EQ(save(), "");
  give_back.SetEvent();
  loader.join();
  EXPECT_EQ(writer.dumps, 0);
  EXPECT_THAT(files(), testing::SizeIs(1)) << "the empty file";
  engine.reset();
  EXPECT_TRUE(engine_is_loaded()) << "a hold is left";
  SymCleanup();
}

TEST_F(Dumps, NeedTheEngine) {
  engine.reset();
  velt_test::Replacement const missing{VELT_CALL(LoadLibraryA),
                                       [](auto...) -> HMODULE { return nullptr; }};
  EXPECT_EQ(save(), "");
  EXPECT_EQ(added_to_fault(), "");
  EXPECT_EQ(files().size(), 0u);
}

// By the platform's writer, and then cut as on a disk that became full.
TEST_F(Dumps, HoldTheFaultAndAreDeletedUnlessTheyAreWhole) {
  std::string whole;
  auto const write = [](auto platform, auto... arguments) {
    return platform(arguments...);
  };
  {
    velt_test::Replacement const real{VELT_CALL(MiniDumpWriteDump), write};
    engine.reset();
    whole = velt_test::content_of(fault()["MiniDump"].as_string());
  }
  engine.emplace();
  ASSERT_TRUE(whole.starts_with("MDMP"));
  auto const header = reinterpret_cast<MINIDUMP_HEADER const*>(whole.data());
  auto const directory =
      reinterpret_cast<MINIDUMP_DIRECTORY const*>(whole.data() + header->StreamDirectoryRva);
  auto const stream =
      std::find_if(directory, directory + header->NumberOfStreams,
                   [](auto const& each) { return each.StreamType == ExceptionStream; });
  ASSERT_NE(stream, directory + header->NumberOfStreams);
  auto const exception =
      reinterpret_cast<MINIDUMP_EXCEPTION_STREAM const*>(whole.data() + stream->Location.Rva);
  EXPECT_EQ(exception->ThreadId, GetCurrentThreadId());
  EXPECT_EQ(exception->ExceptionRecord.ExceptionCode, EXCEPTION_ACCESS_VIOLATION);

  writer.content = whole;
  EXPECT_EQ(names_of(thrown(EGeneric())), "MiniDump ");
  auto const count = files().size();
  for (std::size_t const size : {std::size_t(0), std::size_t(20), sizeof(MINIDUMP_HEADER),
                                 whole.size() / 2, whole.size() - 1}) {
    writer.content = whole.substr(0, size);
    EXPECT_EQ(names_of(thrown(EGeneric())), "") << size << " of " << whole.size();
  }
  EXPECT_EQ(files().size(), count);
}

TEST_F(Dumps, AreTakenBackByCancel) {
  EGeneric error({"a", 1}, {"minidump", save()}, {"b", 2});
  error.cancel_minidump();
  EXPECT_EQ(files().size(), 0u);
  EXPECT_EQ(names_of(error), "a b ");
  for (_value_t const& value : {_value_t("no such file"), _value_t()}) {
    error.put_value("MiniDump", value);
    for (int times = 0; times < 2; ++times) error.cancel_minidump();
    EXPECT_EQ(names_of(error), "a b ");
  }
}

// The dump tells of the first throw, and what follows copies it.
TEST_F(Dumps, StayWithAnExceptionThatIsThrownAgain) {
  VeltDebugSetup(true);
  auto error = fault();
  error.put_value("File", "list");
  auto const names = names_of(error);
  EXPECT_EQ(names_of(thrown(error)), names);
  try {
    try {
      throw EGeneric(error);
    } catch (EGeneric&) {
      throw;
    }
  } catch (EGeneric& caught) {
    EXPECT_EQ(names_of(caught), names);
    EXPECT_EQ(caught["MiniDump"].as_string(), error["MiniDump"].as_string());
  }
  EXPECT_EQ(writer.dumps, 1);
}

// The thread of a task keeps the exception and another one throws it.
TEST_F(Dumps, StayWithTheExceptionOfATask) {
  VeltDebugSetup(true);
  auto const task = MakeThreadTask([] {
    temporary_redirect_structured_exceptions const translated;
    read_there(nullptr);
  });
  std::thread([&] { task->Run(nullptr); }).join();
  auto const kept = files();
  try {
    task->RethrowException();
  } catch (EGeneric& error) {
    EXPECT_EQ(names_of(error),
              "Text Code Address Parameter0 Parameter1 MiniDump ModuleName AddressName Stack ");
  }
  EXPECT_EQ(files(), kept);
}

TEST_F(Dumps, OfFaultsAndWhatElseIsAddedFollowTheSettings) {
  for (bool const dump : {false, true})
    for (bool const extended : {false, true}) {
      SaveMiniDumpOnStructuredException = dump;
      VeltDebugSetup(extended);
      EXPECT_EQ(added_to_fault(), std::string(dump ? "MiniDump " : "") +
                                      (extended ? "ModuleName AddressName Stack " : ""));
    }
  auto const error = fault();
  EXPECT_EQ(error["ModuleName"].as_string(), "diagnostics_tests");
  EXPECT_THAT(error["AddressName"].as_string(), HasSubstr("read_there"));
  EXPECT_THAT(error["Stack"].as_string(), EndsWith("-> " + error["AddressName"].as_string()));
}

TEST_F(Dumps, OfThrowsAndWhatElseIsAddedFollowTheSettings) {
  EXPECT_EQ(names_of(EGeneric(true)), "") << "the throw itself brings it";
  EXPECT_EQ(names_of(thrown(plain())), "Text MiniDump ");
  EXPECT_EQ(writer.exception.ThreadId, GetCurrentThreadId());
  VeltDebugSetup(true);
  EXPECT_EQ(names_of(thrown(plain())), "Text ModuleName AddressName MiniDump Stack ");
  EXPECT_EQ(names_of(thrown(EGeneric({"Stack", ""}))), "MiniDump Stack ") << "a stack is there";
  EXPECT_EQ(names_of(thrown(EGeneric({"Stack", std::vector<int>()}))),
            "MiniDump ModuleName AddressName Stack ");
  UseVEH = false;
  EXPECT_EQ(names_of(thrown(plain())), "Text ");
  UseVEH = true;
  SaveMiniDumpOnCppException = false;
  EXPECT_EQ(names_of(thrown(plain())), "Text ModuleName AddressName Stack ");
  VeltDebugSetup(false);
  EXPECT_EQ(names_of(thrown(plain())), "Text ");
}

TEST_F(Dumps, AreWrittenForAnyTypeThatIsNotExcluded) {
  auto const dumps_for = [](auto const& what) {
    writer.dumps = 0;
    throw_and_catch(what);
    return writer.dumps;
  };
  EXPECT_EQ(dumps_for(1), 1);
  EXPECT_EQ(dumps_for(std::runtime_error("")), 1);
  EXPECT_EQ(dumps_for(C()), 0) << "a part of \"C++\"";
  MiniDumpExcludedTypes = "EFoo;runtime_error, ESystemException";
  EXPECT_EQ(dumps_for(std::runtime_error("")), 0);
  EXPECT_EQ(dumps_for(C()), 1);
  EXPECT_EQ(dumps_for(ESystemException(2)), 0);
  MiniDumpExcludedTypes.clear();
  EXPECT_EQ(dumps_for(EThreadInterrupt()), 0);
  EXPECT_EQ(dumps_for(EStructuredException()), 0);
}

TEST_F(Dumps, LeaveTheThrowAsItIs) {
  writer.meanwhile = [] {
    throw_and_catch(EGeneric({"Text", "inner"}));
    SetLastError(1);
  };
  SetLastError(4711);
  throw_and_catch(1);
  EXPECT_EQ(GetLastError(), 4711u);
  EXPECT_EQ(writer.dumps, 1) << "the handler does not watch itself";

  {
    velt_test::Replacement const failing{VELT_CALL(GetLocalTime),
                                         [](auto...) { throw std::runtime_error("full"); }};
    EXPECT_EQ(names_of(thrown(plain())), "Text ");
  }
  EXPECT_EQ(names_of(thrown(plain())), "Text MiniDump ") << "as before";
}

namespace {

// Keeps the engine busy, as a dump of another thread does, until it is told.
TEvent* engine_is_busy;
TEvent* engine_may_go_on;
auto const answer_late = [](auto platform, HANDLE process, DWORD64 address, auto module) -> BOOL {
  if (address < 1000) {
    engine_is_busy->SetEvent();
    WaitForSingleObject(*engine_may_go_on, INFINITE);
  }
  return platform(process, address, module);
};

struct Thrower : TThreadClass {
  explicit Thrower(std::function<void()> its_body) : body(std::move(its_body)) {}
  void ThreadBody() override { body(); }
  std::function<void()> body;
};

}  // namespace

// An interruption that comes while the diagnostics wait for those of another thread
// is for the next wait of the program.
TEST_F(Dumps, LeaveInterruptionsForTheNextWait) {
  engine.reset();
  TEvent busy, go_on, waits;
  engine_is_busy = &busy;
  engine_may_go_on = &go_on;
  velt_test::Replacement const slow{VELT_CALL(SymGetModuleInfo64), answer_late};
  engine.emplace();
  SaveMiniDumpOnCppException = false;
  VeltDebugSetup(true);
  for (bool const is_fault : {false, true}) {
    busy.ResetEvent();
    go_on.ResetEvent();
    waits.ResetEvent();
    std::thread other([is_fault] { EnsureModuleSymbolsLoaded(is_fault ? 64 : 1); });
    WaitForSingleObject(busy, INFINITE);
    std::string seen;
    Thrower thread([&] {
      waits.SetEvent();
      seen = is_fault ? added_to_fault() : names_of(thrown(plain()));
      SleepEx(30'000, TRUE);
      seen += "was not interrupted";
    });
    thread.StartThread();
    WaitForSingleObject(waits, INFINITE);
    Sleep(100);  // into the wait for the engine
    std::thread interrupter([&] { thread.InterruptThread(0, 30'000); });
    Sleep(100);
    go_on.SetEvent();
    interrupter.join();
    other.join();
    EXPECT_THAT(seen, EndsWith("ModuleName AddressName Stack ")) << is_fault;
  }
}

namespace {

// Takes all the locks that a writer may need, in a thread of its own.
DWORD WINAPI need_every_lock(void*) {
  HeapFree(GetProcessHeap(), 0, HeapAlloc(GetProcessHeap(), 0, 70'000));
  std::free(std::malloc(3000));
  SetEnvironmentVariableW(L"VELT_DUMPS", L"1");
  return 0;
}

void be_busy(unsigned int number) {
  switch (number % 4) {
    case 0:
      delete[] new char[number % 3000];
      HeapFree(GetProcessHeap(), 0, HeapAlloc(GetProcessHeap(), 0, 70'000));
      break;
    case 1:
      SetEnvironmentVariableW(L"VELT_DUMPS", L"2");
      break;
    case 2:
      throw_and_catch(number);
      break;
    case 3:
      // One of all: or the loader's lock would never be free.
      if (number % 32 == 3) FreeLibrary(LoadLibraryW(L"winmm"));
  }
}

}  // namespace

// Everybody else is stopped meanwhile, and has none of the writer's locks.
TEST_F(Dumps, AreWrittenByAWriterWithAThreadOfItsOwn) {
  SaveMiniDumpOnCppException = false;
  std::atomic<unsigned int> steps = 0, steps_meanwhile = 0;
  std::atomic<bool> stop = false;
  writer.meanwhile = [&] {
    unsigned int const before_write = steps;
    HANDLE const thread = CreateThread(nullptr, 0, need_every_lock, nullptr, 0, nullptr);
    EXPECT_EQ(WaitForSingleObject(thread, 25'000), WAIT_OBJECT_0);
    CloseHandle(thread);
    steps_meanwhile += steps - before_write;
  };
  std::vector<std::thread> threads;
  for (unsigned int i = 0; i < 30; ++i)
    threads.emplace_back([&, i] {
      for (auto number = i; !stop; number += 32) be_busy(number), ++steps, Sleep(number % 5);
    });
  int asked = 0, written = 0;
  for (auto const end = GetTickCount64() + 20'000; written < 2 && GetTickCount64() < end;)
    written += ++asked % 2 ? !save().empty() : names_of(fault()).ends_with("MiniDump ");
  stop = true;
  for (auto& each : threads) each.join();
  EXPECT_EQ(writer.dumps, written);
  EXPECT_GT(written, 0);
  EXPECT_EQ(steps_meanwhile, 0u);
  engine.reset();
  for (int given_up = asked - written; given_up; --given_up) SymCleanup();
}

// The one who asked is the thread that writes, or with no records another one, so
// that it has a context in the dump.
TEST_F(Dumps, AreWrittenByTheThrower) {
  DWORD id;
  writer.meanwhile = [&] { id = GetCurrentThreadId(); };
  fault();
  EXPECT_EQ(id, GetCurrentThreadId());
  save();
  EXPECT_NE(id, GetCurrentThreadId());
}

TEST_F(Dumps, LeaveNobodyAsleepWhenTheirThreadIsKilled) {
  writer.meanwhile = [] { TerminateThread(GetCurrentThread(), 7); };
  auto const dump = [](void*) -> DWORD {
    EXCEPTION_RECORD record{};
    CONTEXT context{};
    EXCEPTION_POINTERS pointers{&record, &context};
    return WriteMiniDump("a.dmp", &pointers, 0, GetCurrentThreadId());
  };
  HANDLE const thread = CreateThread(nullptr, 0, dump, nullptr, 0, nullptr);
  EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
  DWORD code;
  EXPECT_TRUE(GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, 7u);
  CloseHandle(thread);
  writer.meanwhile = nullptr;
  EXPECT_NE(save(), "");
  engine.reset();
  while (engine_is_loaded()) SymCleanup();  // what the thread held
}
