// Dumps by the platform's own writer, which takes seconds for each.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>

#include <cstring>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>

#include "tests/support/ChildProcess.h"
#include "tests/support/OpenHandles.h"
#include "velt/diagnostics/MiniDump.h"
#include "velt/diagnostics/Settings.h"
#include "velt/diagnostics/Symbols.h"
#include "velt/exceptions/EGeneric.h"

extern "C" {
NTSTATUS NTAPI LdrLockLoaderLock(ULONG flags, ULONG* state, ULONG_PTR* cookie);
NTSTATUS NTAPI LdrUnlockLoaderLock(ULONG flags, ULONG_PTR cookie);
}

using testing::HasSubstr;

namespace {

// What is in a dump file.
class Dump {
public:
  explicit Dump(std::string const& path) : content(velt_test::content_of(path)) {}

  bool is_one() const { return content.starts_with("MDMP"); }

  // Null if there is none.
  template <class Stream>
  Stream const* stream(MINIDUMP_STREAM_TYPE type) const {
    auto const header = at<MINIDUMP_HEADER>(0);
    auto const directory = at<MINIDUMP_DIRECTORY>(header->StreamDirectoryRva);
    for (ULONG i = 0; i < header->NumberOfStreams; ++i)
      if (directory[i].StreamType == static_cast<ULONG>(type))
        return at<Stream>(directory[i].Location.Rva);
    return nullptr;
  }

  bool has_thread(DWORD id) const {
    auto const threads = stream<MINIDUMP_THREAD_LIST>(ThreadListStream);
    for (ULONG i = 0; i < threads->NumberOfThreads; ++i)
      if (threads->Threads[i].ThreadId == id) return true;
    return false;
  }

private:
  template <class T>
  T const* at(RVA offset) const {
    return reinterpret_cast<T const*>(content.data() + offset);
  }

  std::string content;
};

// A new folder as the current one.
class InFolder {
public:
  InFolder() { std::filesystem::current_path(folder.path()); }
  ~InFolder() { std::filesystem::current_path(before); }

private:
  std::filesystem::path const before = std::filesystem::current_path();
  velt_test::scratch_folder folder;
};

// As if the making of it were the fault.
struct ThisFault {
  EXCEPTION_RECORD record{};
  CONTEXT context;
  EXCEPTION_POINTERS pointers{&record, &context};

  explicit ThisFault(DWORD code) {
    record.ExceptionCode = code;
    RtlCaptureContext(&context);
  }
};

class AllInformation {
public:
  AllInformation() {
    set(true);
    SkipModulesForError += ";libgcc_s_seh-1;libstdc++-6";
  }
  ~AllInformation() {
    set(false);
    SkipModulesForError = skipped;
  }

private:
  static void set(bool on) {
    SaveMiniDumpOnCppException = on;
    VeltDebugSetup(on);
  }

  std::string const skipped = SkipModulesForError;
};

[[gnu::noinline]] void throw_from_here() { throw EGeneric({"Text", "thrown"}); }

bool engine_is_loaded() { return GetModuleHandleA("dbghelp.dll"); }

// Holds the platform's loader lock on another thread.
class TakenLoaderLock {
public:
  TakenLoaderLock() : holder([this] { hold(); }) { WaitForSingleObject(taken, INFINITE); }
  ~TakenLoaderLock() {
    SetEvent(ended);
    holder.join();
    CloseHandle(taken);
    CloseHandle(ended);
  }

private:
  void hold() {
    ULONG_PTR cookie;
    ULONG state;
    LdrLockLoaderLock(0, &state, &cookie);
    SetEvent(taken);
    WaitForSingleObject(ended, INFINITE);
    LdrUnlockLoaderLock(0, cookie);
  }

  HANDLE const taken = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  HANDLE const ended = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  std::thread holder;
};

}  // namespace

TEST(DumpFile, HoldsTheThrowAsTheExceptionTellsOfIt) {
  InFolder const folder;
  AllInformation const settings;
  EGeneric error;
  try {
    throw_from_here();
  } catch (EGeneric& caught) {
    error = caught;
  }
  EXPECT_EQ(error["ModuleName"].as_string(), "diagnostics_tests");
  EXPECT_THAT(error["AddressName"].as_string(), HasSubstr("throw_from_here"));
  EXPECT_THAT(error["Stack"].as_string(), HasSubstr("\n-> " + error["AddressName"].as_string()));
  EXPECT_EQ(error.values().back().first, "Stack");

  auto const path = error["MiniDump"].as_string();
  EXPECT_TRUE(std::regex_match(
      path, std::regex(R"(Dumps\\diagnostics_tests_EGeneric_\d{4}(_\d\d){5}_\d{3}\.dmp)")))
      << path;
  EXPECT_FALSE(engine_is_loaded());
  Dump const dump(path);
  ASSERT_TRUE(dump.is_one());
  auto const exception = dump.stream<MINIDUMP_EXCEPTION_STREAM>(ExceptionStream);
  ASSERT_TRUE(exception);
  EXPECT_EQ(exception->ThreadId, GetCurrentThreadId());
  EXPECT_EQ(exception->ExceptionRecord.ExceptionCode, 0x20474343u);
  EXPECT_TRUE(dump.has_thread(GetCurrentThreadId()));

  error.cancel_minidump();
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(DumpFile, CanBeWithoutAFault) {
  InFolder const folder;
  ASSERT_TRUE(WriteMiniDump("a.dmp", nullptr, 0, GetCurrentThreadId()));
  Dump const dump("a.dmp");
  EXPECT_TRUE(dump.is_one());
  EXPECT_FALSE(dump.stream<MINIDUMP_EXCEPTION_STREAM>(ExceptionStream));
}

TEST(DumpFile, StaysEmptyWhileAnotherThreadHasTheLoaderLock) {
  InFolder const folder;
  ThisFault fault(EXCEPTION_ACCESS_VIOLATION);
  ASSERT_TRUE(SymInitialize());  // or else the engine would have to be loaded
  {
    TakenLoaderLock const lock;
    EXPECT_EQ(EGeneric::SaveMiniDump(&fault.pointers, 0, GetCurrentThreadId()), "");
    auto const handles = velt_test::open_handles();
    EXPECT_EQ(EGeneric::SaveMiniDump(nullptr, 0, GetCurrentThreadId()), "");
    EXPECT_EQ(velt_test::open_handles(), handles + 1);
  }
  for (auto const& file : std::filesystem::directory_iterator("Dumps"))
    EXPECT_EQ(file.file_size(), 0u) << file.path();
  for (int left_behind = 2; left_behind >= 0; --left_behind) {
    EXPECT_TRUE(engine_is_loaded());
    SymCleanup();
  }
  EXPECT_FALSE(engine_is_loaded());
  // The files stay open for good, and their folder stays behind.
}
