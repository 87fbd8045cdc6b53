// Calls of the platform that fail under an object: the code reaches the caller,
// the handle is left as the class says, and no handle is lost. A row has the call,
// with its arguments where the object computes them, behind those that succeed.
#include <gtest/gtest.h>
#include <process.h>
#include <windows.h>

#include <initializer_list>
#include <string>

#include "tests/support/Expect.h"
#include "tests/support/Imports.h"
#include "tests/support/OpenHandles.h"
#include "velt/faults/StackOverflowException.h"
#include "velt/locks/Event.h"
#include "velt/locks/Mutex.h"
#include "velt/locks/Semaphore.h"
#include "velt/locks/WaitableTimer.h"
#include "velt/os/File.h"
#include "velt/os/FileMapping.h"
#include "velt/os/Mailslot.h"
#include "velt/os/Overlapped.h"
#include "velt/os/Process.h"
#include "velt/threads/ThreadClass.h"
#include "velt/threads/ThreadPool.h"

using namespace velt_test;

VELT_WATCH(CancelIo, CancelWaitableTimer, CloseHandle, CreateEventA, CreateEventW, CreateFileA,
           CreateFileMappingA, CreateFileMappingW, CreateFileW, CreateMailslotA, CreateMailslotW,
           CreateMutexA, CreateMutexW, CreateProcessA, CreateProcessW, CreateSemaphoreA,
           CreateSemaphoreW, CreateWaitableTimerA, CreateWaitableTimerW, DuplicateHandle,
           FlushFileBuffers, GetFileInformationByHandle, GetOverlappedResult, MapViewOfFile,
           OpenEventA, OpenEventW, OpenFileMappingA, OpenFileMappingW, OpenMutexA, OpenMutexW,
           OpenSemaphoreA, OpenSemaphoreW, OpenWaitableTimerA, OpenWaitableTimerW, PulseEvent,
           QueueUserAPC, ReadFile, ReleaseMutex, ReleaseSemaphore, ResetEvent, ResumeThread,
           SetEvent, SetFilePointerEx, SetThreadPriority, SetThreadToken, SetWaitableTimer,
           SleepEx, SuspendThread, TerminateProcess, TerminateThread, WaitForSingleObjectEx,
           WriteFile, _beginthreadex);

namespace {

template <class Object>
struct Row {
  char const* call;
  void (*run)(Object&);
};

void* const minus_one = INVALID_HANDLE_VALUE;

// What the handle is after a failure. A call that makes handles answers failure
// by the same value.
using handle_left = std::optional<void*>;
handle_left const unchanged;

template <class Object>
void expect_failures(Object (*subject)(), handle_left left,
                     std::initializer_list<Row<Object>> rows) {
  // The first throw opens handles for good.
  system_code([] { ThrowSystemException(1); });
  for (auto const& [call, run] : rows) {
    SCOPED_TRACE(call);
    long const before = open_handles();
    {
      Object object(subject());
      void* const expected = left.value_or(object);
      {
        std::string_view name(call);
        name.remove_prefix(name.rfind(')', name.size() - 2) + 1);
        Watch watch(std::string(name.substr(0, name.find('('))), left);
        EXPECT_EQ(system_code([&] { run(object); }), injected_code);
        EXPECT_TRUE(watch.calls.starts_with(call)) << watch.calls;
      }
      EXPECT_EQ(static_cast<void*>(object), expected);
    }
    EXPECT_TRUE(open_handles_fall_to(before));
  }
}

template <class Object>
Object nothing() {
  return Object(DoNotInitialize);
}

// Goes with its last handle.
template <class File>
File some_file() {
  File file(DoNotInitialize);
  file.AttachHandle(CreateFileA("velt-failures", GENERIC_READ | GENERIC_WRITE, 7, nullptr,
                                CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
  return file;
}

TFileMapping some_mapping() {
  TFileMapping mapping;
  mapping.CreateFileMappingW(PAGE_READWRITE, 0x20000, static_cast<char*>(nullptr));
  return mapping;
}

TProcess some_process() {
  TProcess process;
  process.AttachHandle(CreateEventExW(nullptr, nullptr, 0, EVENT_ALL_ACCESS));
  return process;
}

TThread ended_thread() {
  TThread thread([](void*) { return 0u; }, nullptr);
  ::WaitForSingleObject(thread, INFINITE);
  return thread;
}

// In its body, which waits by a call that is not watched.
struct RunningThread final : TThreadClass {
  RunningThread() {
    StartThread();
    ::WaitForSingleObject(began, INFINITE);
  }
  ~RunningThread() {
    end.Set();
    ::WaitForSingleObject(handle, INFINITE);
  }
  void ThreadBody() override {
    began.Set();
    ::WaitForSingleObject(end, INFINITE);
  }
  TEvent began, end;
};

unsigned long moved;

}  // namespace

TEST(PlatformFailures, OfFiles) {
  constexpr DWORD access = GENERIC_READ;
#define OPENED "2147483648, 7, none, 4, 128, none)"
  expect_failures<TFile>(
      nothing, minus_one,
      {{"CreateFileA(name, " OPENED, [](TFile& f) { f.OpenFile("name", access, 7, OPEN_ALWAYS); }},
       {"CreateFileW(name, " OPENED,
        [](TFile& f) { f.CreateFileW(L"name", access, 7, OPEN_ALWAYS); }},
       {"CreateFileA(name, " OPENED, [](TFile&) { TFile("name", access, 7, OPEN_ALWAYS); }},
       {"CreateFileW(name, " OPENED, [](TFile&) { TFile(L"name", access, 7, OPEN_ALWAYS); }}});
  expect_failures<TFile>(
      some_file, unchanged,
      {{"ReadFile(handle, buffer, 3, out, none)", [](TFile& f) { f.ReadFile(buffer, 3); }},
       {"ReadFile", [](TFile& f) { f.ReadFile(buffer, 3, moved); }},
       {"WriteFile(handle, buffer, 3, out, none)", [](TFile& f) { f.WriteFile(buffer, 3); }},
       {"WriteFile", [](TFile& f) { f.WriteFile(buffer, 3, moved); }},
       {"SetFilePointerEx(handle, 4294967303, out, 1)",
        [](TFile& f) { f.SetFilePointerEx(0x1'0000'0007, FILE_CURRENT); }},
       {"GetFileInformationByHandle",
        [](TFile& f) {
          BY_HANDLE_FILE_INFORMATION information;
          f.GetFileInformation(information);
        }},
       {"GetFileInformationByHandle", [](TFile& f) { f.GetLastWriteTime(); }},
       {"FlushFileBuffers", [](TFile& f) { f.FlushFile(); }},
       {"CloseHandle", [](TFile& f) { f.CloseHandle(); }}});
}

TEST(PlatformFailures, OfOverlappedFiles) {
  using File = TOverlapped<TFile>;
  expect_failures<File>(
      some_file, unchanged,
      {{"ReadFile(handle, buffer, 3, out, out)", [](File& f) { f.ReadFile(buffer, 3); }},
       {"ReadFile", [](File& f) { f.ReadFile(buffer, 3, moved); }},
       {"WriteFile(handle, buffer, 3, out, out)", [](File& f) { f.WriteFile(buffer, 3); }},
       {"WriteFile", [](File& f) { f.WriteFile(buffer, 3, moved); }},
       {"GetOverlappedResult(handle, out, out, 1)",
        [](File& f) { f.GetOverlappedResult(moved, true); }},
       {"CancelIo", [](File& f) { f.CancelIo(); }}});
}

TEST(PlatformFailures, OfMappings) {
  using Mapping = TFileMapping;
  constexpr unsigned __int64 large = 0x2'0000'0003;
  static TProcess const file = some_process();
  expect_failures<Mapping>(
      [] { return Mapping(); }, nullptr,
      {{"CreateFileMappingA(process, none, 4, 2, 3, name)",  // -1 is no file, too
        [](Mapping& m) { m.CreateFileMappingW(PAGE_READWRITE, large, "name"); }},
       {"CreateFileMappingW(process, none, 4, 2, 3, name)",
        [](Mapping& m) { m.CreateFileMappingW(PAGE_READWRITE, large, L"name"); }},
       {"CreateFileMappingA(handle, none, 2, 0, 0, name)",
        [](Mapping& m) { m.CreateFileMappingW(PAGE_READONLY, file, "name"); }},
       {"CreateFileMappingW(handle, none, 2, 0, 0, name)",
        [](Mapping& m) { m.CreateFileMappingW(PAGE_READONLY, file, L"name"); }},
       {"OpenFileMappingA", [](Mapping& m) { m.OpenFileMappingW("name", FILE_MAP_READ); }},
       {"OpenFileMappingW", [](Mapping& m) { m.OpenFileMappingW(L"name", FILE_MAP_READ); }}});
  expect_failures<Mapping>(some_mapping, unchanged,
                           {{"MapViewOfFile(handle, 4, 0, 65536, 7)",
                             [](Mapping& m) { m.MapViewOfFile(FILE_MAP_READ, 0x10000, 7); }}});
}

// The constructors take the numbers the other way round.
TEST(PlatformFailures, OfMailslots) {
  using Slot = TMailslot;
  expect_failures<Slot>(
      nothing, minus_one,
      {{"CreateMailslotA(name, 400, 5", [](Slot& m) { m.CreateMailslotW("name", 400, 5); }},
       {"CreateMailslotW(name, 400, 5", [](Slot& m) { m.CreateMailslotW(L"name", 400, 5); }},
       {"CreateMailslotA(name, 400, 5", [](Slot&) { TMailslot("name", 5, 400); }},
       {"CreateMailslotW(name, 400, 5", [](Slot&) { TMailslot(L"name", 5, 400); }}});
}

TEST(PlatformFailures, OfProcesses) {
  using Process = TProcess;
  expect_failures<Process>(
      some_process, unchanged,
      {{"CreateProcessA(none, name, none, none, 0, 16",
        [](Process& p) { p.CreateProcessW("name", CREATE_NEW_CONSOLE); }},
       {"CreateProcessW(none, name, none, none, 0, 16",
        [](Process& p) { p.CreateProcessW(L"name", CREATE_NEW_CONSOLE); }},
       {"TerminateProcess(handle, 4294967295)", [](Process& p) { p.TerminateProcess(-1); }}});
  // The thread of a process is closed at once, whatever the platform answers.
  TProcess process;
  Watch watch("CloseHandle");
  EXPECT_EQ(system_code([&] { process.CreateProcessW(L"cmd /c exit", 0); }), -1);
  EXPECT_TRUE(watch.calls.ends_with(")CloseHandle(handle)")) << watch.calls;
  EXPECT_TRUE(process.IsValidHandle());
}

TEST(PlatformFailures, OfThreads) {
  using Thread = TThread;
  static auto const entry = [](void*) { return 0u; };
  expect_failures<Thread>(
      nothing, unchanged,
      {{"_beginthreadex(none, 0, routine, buffer, 0, out)", [](Thread&) { Thread(entry, buffer); }},
       {"_beginthreadex(none, 70000, routine, buffer, 0, out)",
        [](Thread& t) { t.CreateThread(entry, buffer, 70'000); }}});
  expect_failures<Thread>(
      ended_thread, unchanged,
      {{"SetThreadPriority(handle, -2)", [](Thread& t) { t.SetThreadPriority(-2); }},
       {"SetThreadPriority(handle, 1)", [](Thread& t) { t.DisableThreadPriorityBoost(true); }},
       {"TerminateThread(handle, 9)", [](Thread& t) { t.TerminateThread(9); }},
       {"SetThreadToken(out, none)", [](Thread& t) { t.SetThreadToken(nullptr); }},
       {"SuspendThread(handle)", [](Thread& t) { t.SuspendThread(); }},
       {"ResumeThread(handle)", [](Thread& t) { t.ResumeThread(); }},
       {"QueueUserAPC(routine, handle, 5)",
        [](Thread& t) { t.QueueUserAPC([](unsigned __int64) {}, 5); }},
       {"SleepEx(3, 0)", [](Thread&) { TThread::Sleep(3, FALSE); }},
       {"SleepEx(1, 1)", [](Thread&) { TThread::Pause(); }}});
  using Running = RunningThread;
  expect_failures<Running>(
      [] { return Running(); }, unchanged,
      {{"WaitForSingleObjectEx(handle, 5, 1)", [](Running& t) { t.StopThread(5); }},
       {"WaitForSingleObjectEx(handle, 5, 1)TerminateThread(handle, 0)",
        [](Running& t) { t.StopThread(5); }},
       {"WaitForSingleObjectEx(handle, 3, 1)QueueUserAPC(routine, handle, ",
        [](Running& t) { t.InterruptThread(3, 4); }}});
}

TEST(PlatformFailures, OfPoolsAndTasks) {
  expect_failures<TThread>(
      nothing, unchanged,
      {{"CreateSemaphoreW(none, 0, 7, none)", [](TThread&) { CreateNewThreadPool(1, 0, 0, 7); }},
       {"CreateSemaphoreW(none, 0, 7, none)CreateEventW(none, 1, 1, none)",
        [](TThread&) { CreateNewThreadPool(1, 0, 0, 7); }},
       {"CreateEventW(none, 1, 0, none)", [](TThread&) { MakeThreadTask([] {}); }}});
}

// What a constructor that fails leaves alone.
template <class Object>
static Object null() {
  Object object(DoNotInitialize);
  object.AttachHandle(nullptr);
  return object;
}

TEST(PlatformFailures, OfMutexes) {
  using Mutex = TMutex;
  expect_failures<Mutex>(
      null, nullptr,
      {{"CreateMutexW(none, 0, none)", [](Mutex&) { TMutex(); }},
       {"CreateMutexA(default access, 0, name)", [](Mutex&) { TMutex("name"); }},
       {"CreateMutexW(default access, 0, name)", [](Mutex&) { TMutex(L"name"); }}});
  expect_failures<Mutex>(
      nothing, nullptr,
      {{"CreateMutexW(none, 1, none)", [](Mutex& m) { m.CreateMutexW(true); }},
       {"OpenMutexA(5, 0, name)", [](Mutex& m) { m.OpenMutexW("name", 5); }},
       {"OpenMutexW(5, 0, name)", [](Mutex& m) { m.OpenMutexW(L"name", 5); }}});
  expect_failures<Mutex>(
      [] { return TMutex(); }, unchanged,
      {{"ReleaseMutex", [](Mutex& m) { m.Unlock(); }},
       {"WaitForSingleObjectEx(handle, 7, 1)", [](Mutex& m) { (void)m.Lock(7); }},
       {"WaitForSingleObjectEx(handle, 4294967295, 1)", [](Mutex& m) { m.Lock(); }}});
}

TEST(PlatformFailures, OfSemaphores) {
  using Semaphore = TSemaphore;
  expect_failures<Semaphore>(
      null, nullptr,
      {{"CreateSemaphoreW(none, 3, 3, none)", [](Semaphore&) { TSemaphore(3); }},
       {"CreateSemaphoreW(none, 1, 3, none)", [](Semaphore&) { TSemaphore(3, 1); }},
       {"CreateSemaphoreA(default access, 1, 3, name)",
        [](Semaphore&) { TSemaphore("name", 3, 1); }},
       {"CreateSemaphoreW(default access, 1, 3, name)",
        [](Semaphore&) { TSemaphore(L"name", 3, 1); }}});
  expect_failures<Semaphore>(
      nothing, nullptr,
      {{"OpenSemaphoreA(5, 0, name)", [](Semaphore& s) { s.OpenSemaphoreW("name", 5); }},
       {"OpenSemaphoreW(5, 0, name)", [](Semaphore& s) { s.OpenSemaphoreW(L"name", 5); }}});
  expect_failures<Semaphore>(
      [] { return TSemaphore(4, 2); }, unchanged,
      {{"ReleaseSemaphore(handle, 2, out)", [](Semaphore& s) { s.ReleaseSemaphore(2); }},
       {"ReleaseSemaphore(handle, 1, out)", [](Semaphore& s) { s.Unlock(); }},
       {"WaitForSingleObjectEx(handle, 7, 1)", [](Semaphore& s) { (void)s.Lock(7); }},
       {"WaitForSingleObjectEx(handle, 4294967295, 1)", [](Semaphore& s) { s.Lock(); }}});
}

TEST(PlatformFailures, OfEvents) {
  using Event = TEvent;
  expect_failures<Event>(
      null, nullptr,
      {{"CreateEventW(none, 1, 0, none)", [](Event&) { TEvent(); }},
       {"CreateEventW(none, 0, 1, none)", [](Event&) { TEvent(false, true); }},
       {"CreateEventA(open access, 0, 1, name)", [](Event&) { TEvent("name", false, true); }},
       {"CreateEventW(open access, 1, 0, name)", [](Event&) { TEvent(L"name", true, false); }}});
  expect_failures<Event>(
      nothing, nullptr,
      {{"OpenEventA(5, 0, name)", [](Event& e) { e.OpenEventW("name", 5); }},
       {"OpenEventW(5, 0, name)", [](Event& e) { e.OpenEventW(L"name", 5); }}});
  expect_failures<Event>([] { return TEvent(); }, unchanged,
                         {{"SetEvent", [](Event& e) { e.Set(); }},
                          {"ResetEvent", [](Event& e) { e.Reset(); }},
                          {"PulseEvent", [](Event& e) { e.Pulse(); }},
                          {"WaitForSingleObjectEx(handle, 7, 1)", [](Event& e) { e.Signaled(7); }},
                          {"WaitForSingleObjectEx(handle, 4294967295, 1)",
                           [](Event& e) { e.WaitForSignal(); }},
                          {"CloseHandle", [](Event& e) { e.CloseHandle(); }},
                          {"CloseHandle", [](Event& e) { e.AttachHandle(&e); }},
                          {"CloseHandle", [](Event& e) { e = TEvent(DoNotInitialize); }},
                          {"DuplicateHandle(process, handle, process, out, 0, 0, 2)",
                           [](Event& e) { TEvent copy(e); }}});
  // An assignment closes first.
  TEvent event, other;
  Watch const watch("DuplicateHandle", nullptr);
  EXPECT_EQ(system_code([&] { event = other; }), injected_code);
  EXPECT_EQ(static_cast<void*>(event), minus_one);
  EXPECT_TRUE(watch.calls.starts_with("CloseHandle(handle)DuplicateHandle(")) << watch.calls;
}

TEST(PlatformFailures, OfTimers) {
  using Timer = TWaitableTimer;
  std::initializer_list<Row<Timer>> const makers{
      {"CreateWaitableTimerW(none, 1, none)", [](Timer& t) { t.CreateTimer(true); }},
      {"CreateWaitableTimerA(default access, 0, name)",
       [](Timer& t) { t.CreateTimer("name", false); }},
      {"CreateWaitableTimerW(default access, 1, name)",
       [](Timer& t) { t.CreateTimer(L"name", true); }},
      {"OpenWaitableTimerA(5, 0, name)", [](Timer& t) { t.OpenTimer("name", 5); }},
      {"OpenWaitableTimerW(5, 0, name)", [](Timer& t) { t.OpenTimer(L"name", 5); }}};
  expect_failures<Timer>(nothing, minus_one, makers);
  // Null, which is how the platform fails, passes.
  for (auto const& [call, run] : makers) {
    Timer timer(DoNotInitialize);
    std::string const name(call);
    Watch const watch(name.substr(0, name.find('(')));
    EXPECT_EQ(system_code([&] { run(timer); }), -1) << call;
    EXPECT_EQ(static_cast<void*>(timer), nullptr) << call;
  }
  expect_failures<Timer>(
      [] { return TWaitableTimer(); }, unchanged,
      {{"SetWaitableTimer(handle, -42949672950000, 9, none, none, 0)",
        [](Timer& t) { t.Set(0xFFFFFFFF, 9); }},
       {"SetWaitableTimer(handle, -1, 0, none, none, 0)",
        [](Timer& t) { t.Set(FILETIME{0xFFFFFFFF, 0xFFFFFFFF}); }},
       {"CancelWaitableTimer", [](Timer& t) { t.Cancel(); }}});
}

// Of the thread that makes the exception.
TEST(PlatformFailures, OfOverflows) {
  for (char const* call : {"_beginthreadex", "CloseHandle"}) {
    Watch watch(call);
    auto const overflow = [] {
      EXCEPTION_RECORD record{};
      CONTEXT context{};
      EXCEPTION_POINTERS pointers{&record, &context};
      EStackOverflowException::Throw(&pointers, 0);
    };
    EXPECT_EQ(system_code(overflow), injected_code) << call;
  }
}
