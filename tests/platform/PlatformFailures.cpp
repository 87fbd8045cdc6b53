// Calls of the platform that fail under an object: the code reaches the caller,
// the handle is left as the class says, and no handle is lost. A row has the call,
// with its arguments where the object computes them, behind those that succeed.
#include <gtest/gtest.h>
#include <process.h>
#include <windows.h>
#include <winspool.h>

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <string>

#include "tests/os/ScratchPrinter.h"
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
#include "velt/os/Printer.h"
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
           SetEvent, SetFilePointerEx, SetJobW, SetPrinterW, SetThreadPriority, SetThreadToken,
           SetWaitableTimer, SleepEx, SuspendThread, TerminateProcess, TerminateThread,
           WaitForSingleObjectEx, WriteFile, _beginthreadex);

namespace {

// `call` is the beginning of the calls, in which "CreateFile?" is CreateFileA and
// CreateFileW: such a row is run with a name of either kind.
template <class Object>
struct Row {
  template <class Run>
  Row(char const* begin, Run operation) : call(begin) {
    if constexpr (std::is_invocable_v<Run, Object&>)
      run = [=](Object& object, char) { operation(object); };
    else
      run = [=](Object& object, char kind) {
        kind == 'A' ? operation(object, "name") : operation(object, L"name");
      };
  }
  std::string call;
  std::function<void(Object&, char kind)> run;
};

void* const minus_one = INVALID_HANDLE_VALUE;

// What the handle is after a failure. A call that makes handles answers failure
// by the same value.
using handle_left = std::optional<void*>;
handle_left const unchanged;

template <class Object>
void expect_failure(Object (*subject)(), handle_left left, Row<Object> row, char kind) {
  std::ranges::replace(row.call, '?', kind);
  SCOPED_TRACE(row.call);
  long const before = open_handles();
  {
    Object object(subject());
    void* const expected = left.value_or(object);
    {
      auto const name = row.call.substr(row.call.rfind(')', row.call.size() - 2) + 1);
      Watch watch(name.substr(0, name.find('(')), left);
      EXPECT_EQ(system_code([&] { row.run(object, kind); }), injected_code);
      EXPECT_TRUE(watch.calls.starts_with(row.call)) << watch.calls;
    }
    EXPECT_EQ(static_cast<void*>(object), expected);
  }
  EXPECT_TRUE(open_handles_fall_to(before));
}

template <class Object>
void expect_failures(Object (*subject)(), handle_left left,
                     std::initializer_list<Row<Object>> rows) {
  // The first throw opens handles for good.
  system_code([] { ThrowSystemException(1); });
  for (auto const& row : rows)
    for (char const kind : std::string_view(row.call.find('?') < row.call.size() ? "AW" : "A"))
      expect_failure(subject, left, row, kind);
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

unsigned end_at_once(void*) { return 0; }

TThread ended_thread() {
  TThread thread(end_at_once, nullptr);
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
  expect_failures<TFile>(
      nothing, minus_one,
      {{"CreateFile?(name, 2147483648, 7, none, 4, 128, none)",
        [](auto& f, auto name) { f.OpenFile(name, GENERIC_READ, 7, OPEN_ALWAYS); }}});
  expect_failures<TFile>(
      some_file, unchanged,
      {{"ReadFile(handle, buffer, 3, out, none)", [](auto& f) { f.ReadFile(buffer, 3); }},
       {"WriteFile(handle, buffer, 3, out, none)", [](auto& f) { f.WriteFile(buffer, 3); }},
       {"SetFilePointerEx(handle, 4294967303, out, 1)",
        [](auto& f) { f.SetFilePointerEx(0x1'0000'0007, FILE_CURRENT); }},
       {"GetFileInformationByHandle", [](auto& f) { f.GetLastWriteTime(); }},
       {"FlushFileBuffers", [](auto& f) { f.FlushFile(); }},
       {"CloseHandle", [](auto& f) { f.CloseHandle(); }}});
  expect_failures<TOverlapped<TFile>>(
      some_file, unchanged,
      {{"ReadFile(handle, buffer, 3, out, out)", [](auto& f) { f.ReadFile(buffer, 3); }},
       {"WriteFile(handle, buffer, 3, out, out)", [](auto& f) { f.WriteFile(buffer, 3); }},
       {"GetOverlappedResult(handle, out, out, 1)",
        [](auto& f) { f.GetOverlappedResult(moved, true); }},
       {"CancelIo", [](auto& f) { f.CancelIo(); }}});
}

TEST(PlatformFailures, OfMappingsAndMailslots) {
  static TProcess const file = some_process();
  expect_failures<TFileMapping>(
      [] { return TFileMapping(); }, nullptr,
      {{"CreateFileMapping?(process, none, 4, 2, 3, name)",  // -1 is no file, too
        [](auto& m, auto name) { m.CreateFileMappingW(PAGE_READWRITE, 0x2'0000'0003, name); }},
       {"CreateFileMapping?(handle, none, 2, 0, 0, name)",
        [](auto& m, auto name) { m.CreateFileMappingW(PAGE_READONLY, file, name); }},
       {"OpenFileMapping?(4, 0, name)",
        [](auto& m, auto name) { m.OpenFileMappingW(name, FILE_MAP_READ); }}});
  expect_failures<TFileMapping>(some_mapping, unchanged,
                                {{"MapViewOfFile(handle, 4, 0, 65536, 7)",
                                  [](auto& m) { m.MapViewOfFile(FILE_MAP_READ, 0x10000, 7); }}});
  // The constructor takes the numbers the other way round.
  expect_failures<TMailslot>(
      nothing, minus_one,
      {{"CreateMailslot?(name, 400, 5",
        [](auto& m, auto name) { m.CreateMailslotW(name, 400, 5); }},
       {"CreateMailslot?(name, 400, 5", [](auto&, auto name) { TMailslot(name, 5, 400); }}});
}

TEST(PlatformFailures, OfPrinters) {
  UnrealPrinter().ControlJobSilent(0, 0);  // loads the spooler's library
  expect_failures<UnrealPrinter>(
      [] { return UnrealPrinter(); }, unchanged,
      {{"SetPrinterW(buffer, 0, none, 5)", [](auto& p) { p.ControlPrinter(5); }},
       {"SetPrinterW(buffer, 3, out, 0)",
        [](auto& p) { p.SetPrinterInfo(AutoPtr<PRINTER_INFO_3>(new PRINTER_INFO_3())); }},
       {"SetJobW(buffer, 7, 0, none, 5)", [](auto& p) { p.ControlJob(7, 5); }},
       {"SetJobW(buffer, 7, 2, out, 0)",
        [](auto& p) { p.SetJobInfo(AutoPtr<JOB_INFO_2W>(new JOB_INFO_2W()), 7); }}});
}

TEST(PlatformFailures, OfProcesses) {
  expect_failures<TProcess>(
      some_process, unchanged,
      {{"CreateProcess?(none, name, none, none, 0, 16",
        [](auto& p, auto name) { p.CreateProcessW(name, CREATE_NEW_CONSOLE); }},
       {"TerminateProcess(handle, 4294967295)", [](auto& p) { p.TerminateProcess(-1); }}});
  // The thread of a process is closed at once, whatever the platform answers.
  TProcess process;
  Watch watch("CloseHandle");
  EXPECT_EQ(system_code([&] { process.CreateProcessW(L"cmd /c exit", 0); }), -1);
  EXPECT_TRUE(watch.calls.ends_with(")CloseHandle(handle)")) << watch.calls;
  EXPECT_TRUE(process.IsValidHandle());
}

TEST(PlatformFailures, OfThreadsPoolsAndTasks) {
  expect_failures<TThread>(
      nothing, unchanged,
      {{"_beginthreadex(none, 0, routine, buffer, 0, out)", 
        [](auto&) { TThread(end_at_once, buffer); }},
       {"_beginthreadex(none, 70000, routine, buffer, 0, out)",
        [](auto& t) { t.CreateThread(end_at_once, buffer, 70'000); }},
       {"CreateSemaphoreW(none, 0, 7, none)", [](auto&) { CreateNewThreadPool(1, 0, 0, 7); }},
       {"CreateSemaphoreW(none, 0, 7, none)CreateEventW(none, 1, 1, none)",
        [](auto&) { CreateNewThreadPool(1, 0, 0, 7); }},
       {"CreateEventW(none, 1, 0, none)", [](auto&) { MakeThreadTask([] {}); }}});
  expect_failures<TThread>(
      ended_thread, unchanged,
      {{"SetThreadPriority(handle, -2)", [](auto& t) { t.SetThreadPriority(-2); }},
       {"SetThreadPriority(handle, 1)", [](auto& t) { t.DisableThreadPriorityBoost(true); }},
       {"TerminateThread(handle, 9)", [](auto& t) { t.TerminateThread(9); }},
       {"SetThreadToken(out, none)", [](auto& t) { t.SetThreadToken(nullptr); }},
       {"SuspendThread(handle)", [](auto& t) { t.SuspendThread(); }},
       {"ResumeThread(handle)", [](auto& t) { t.ResumeThread(); }},
       {"QueueUserAPC(routine, handle, 5)",
        [](auto& t) { t.QueueUserAPC([](unsigned __int64) {}, 5); }},
       {"SleepEx(3, 0)", [](auto&) { TThread::Sleep(3, FALSE); }},
       {"SleepEx(1, 1)", [](auto&) { TThread::Pause(); }}});
  expect_failures<RunningThread>(
      [] { return RunningThread(); }, unchanged,
      {{"WaitForSingleObjectEx(handle, 5, 1)", [](auto& t) { t.StopThread(5); }},
       {"WaitForSingleObjectEx(handle, 5, 1)TerminateThread(handle, 0)",
        [](auto& t) { t.StopThread(5); }},
       {"WaitForSingleObjectEx(handle, 3, 1)QueueUserAPC(routine, handle, ",
        [](auto& t) { t.InterruptThread(3, 4); }}});
}

// What a constructor that fails leaves alone.
template <class Object>
static Object null() {
  Object object(DoNotInitialize);
  object.AttachHandle(nullptr);
  return object;
}

TEST(PlatformFailures, OfMutexesAndSemaphores) {
  expect_failures<TMutex>(
      null, nullptr,
      {{"CreateMutexW(none, 0, none)", [](auto&) { TMutex(); }},
       {"CreateMutex?(default access, 0, name)", [](auto&, auto name) { TMutex{name}; }}});
  expect_failures<TMutex>(
      nothing, nullptr,
      {{"CreateMutexW(none, 1, none)", [](auto& m) { m.CreateMutexW(true); }},
       {"OpenMutex?(5, 0, name)", [](auto& m, auto name) { m.OpenMutexW(name, 5); }}});
  expect_failures<TMutex>(
      [] { return TMutex(); }, unchanged,
      {{"ReleaseMutex", [](auto& m) { m.Unlock(); }},
       {"WaitForSingleObjectEx(handle, 7, 1)", [](auto& m) { (void)m.Lock(7); }},
       {"WaitForSingleObjectEx(handle, 4294967295, 1)", [](auto& m) { m.Lock(); }}});
  expect_failures<TSemaphore>(
      null, nullptr,
      {{"CreateSemaphoreW(none, 3, 3, none)", [](auto&) { TSemaphore(3); }},
       {"CreateSemaphoreW(none, 1, 3, none)", [](auto&) { TSemaphore(3, 1); }},
       {"CreateSemaphore?(default access, 1, 3, name)",
        [](auto&, auto name) { TSemaphore(name, 3, 1); }}});
  expect_failures<TSemaphore>(
      nothing, nullptr,
      {{"OpenSemaphore?(5, 0, name)", [](auto& s, auto name) { s.OpenSemaphoreW(name, 5); }}});
  expect_failures<TSemaphore>(
      [] { return TSemaphore(4, 2); }, unchanged,
      {{"ReleaseSemaphore(handle, 2, out)", [](auto& s) { s.ReleaseSemaphore(2); }},
       {"ReleaseSemaphore(handle, 1, out)", [](auto& s) { s.Unlock(); }},
       {"WaitForSingleObjectEx(handle, 7, 1)", [](auto& s) { (void)s.Lock(7); }},
       {"WaitForSingleObjectEx(handle, 4294967295, 1)", [](auto& s) { s.Lock(); }}});
}

TEST(PlatformFailures, OfEvents) {
  expect_failures<TEvent>(
      null, nullptr,
      {{"CreateEventW(none, 1, 0, none)", [](auto&) { TEvent(); }},
       {"CreateEventW(none, 0, 1, none)", [](auto&) { TEvent(false, true); }},
       {"CreateEvent?(open access, 0, 1, name)",
        [](auto&, auto name) { TEvent(name, false, true); }}});
  expect_failures<TEvent>(
      nothing, nullptr,
      {{"OpenEvent?(5, 0, name)", [](auto& e, auto name) { e.OpenEventW(name, 5); }}});
  expect_failures<TEvent>(
      [] { return TEvent(); }, unchanged,
      {{"SetEvent", [](auto& e) { e.Set(); }},
       {"ResetEvent", [](auto& e) { e.Reset(); }},
       {"PulseEvent", [](auto& e) { e.Pulse(); }},
       {"WaitForSingleObjectEx(handle, 7, 1)", [](auto& e) { e.Signaled(7); }},
       {"WaitForSingleObjectEx(handle, 4294967295, 1)", [](auto& e) { e.WaitForSignal(); }},
       {"CloseHandle", [](auto& e) { e.AttachHandle(&e); }},
       {"CloseHandle", [](auto& e) { e = TEvent(DoNotInitialize); }},
       {"DuplicateHandle(process, handle, process, out, 0, 0, 2)",
        [](auto& e) { TEvent copy(e); }}});
  // An assignment closes first.
  TEvent event, other;
  Watch const watch("DuplicateHandle", nullptr);
  EXPECT_EQ(system_code([&] { event = other; }), injected_code);
  EXPECT_EQ(static_cast<void*>(event), minus_one);
  EXPECT_TRUE(watch.calls.starts_with("CloseHandle(handle)DuplicateHandle(")) << watch.calls;
}

TEST(PlatformFailures, OfTimers) {
  std::initializer_list<Row<TWaitableTimer>> const makers{
      {"CreateWaitableTimerW(none, 1, none)", [](auto& t) { t.CreateTimer(true); }},
      {"CreateWaitableTimer?(default access, 0, name)",
       [](auto& t, auto name) { t.CreateTimer(name, false); }},
      {"OpenWaitableTimer?(5, 0, name)", [](auto& t, auto name) { t.OpenTimer(name, 5); }}};
  expect_failures<TWaitableTimer>(nothing, minus_one, makers);
  // Null, which is how the platform fails, passes.
  for (auto const& [call, run] : makers) {
    TWaitableTimer timer(DoNotInitialize);
    auto name = call.substr(0, call.find('('));
    std::ranges::replace(name, '?', 'W');
    Watch const watch(name);
    EXPECT_EQ(system_code([&] { run(timer, 'W'); }), -1) << call;
    EXPECT_EQ(static_cast<void*>(timer), nullptr) << call;
  }
  expect_failures<TWaitableTimer>(
      [] { return TWaitableTimer(); }, unchanged,
      {{"SetWaitableTimer(handle, -42949672950000, 9, none, none, 0)",
        [](auto& t) { t.Set(0xFFFFFFFF, 9); }},
       {"SetWaitableTimer(handle, -1, 0, none, none, 0)",
        [](auto& t) { t.Set(FILETIME{0xFFFFFFFF, 0xFFFFFFFF}); }},
       {"CancelWaitableTimer", [](auto& t) { t.Cancel(); }}});
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
