#include <windows.h>

#include <dbghelp.h>
#include <malloc.h>
#include <process.h>
#include <tlhelp32.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "bench/Rows.h"
#include "bench/throwing/Throwing.h"
#include "velt/diagnostics/DebugSnapshot.h"
#include "velt/diagnostics/Settings.h"
#include "velt/diagnostics/SmartPtrRefsLogger.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/faults/StackOverflowException.h"
#include "velt/faults/StructuredException.h"
#include "velt/symbols/Symbols.h"
#include "velt/threads/ThreadClass.h"

namespace bench {
namespace {

using address = unsigned __int64;

constexpr unsigned frame_count = 20;

// For the length of the process, so that no row loads the symbol engine.
void hold_engine() {
  static bool const held = SymInitialize();
  if (!held) abort();
}

using Walk = void (*)(address* frames);

// Walks from as many frames further down as are walked.
[[gnu::noinline]] void walk_below(unsigned depth, Walk walk, address* frames) {
  if (depth != 0)
    walk_below(depth - 1, walk, frames);
  else
    walk(frames);
  keep(depth);
}

void walk(address* frames) {
  if (StackWalk(frames, nullptr, GetCurrentThread(), 0, frame_count) != frame_count) abort();
}

enum class each_step { unguarded, under_mutex };

// A step of velt's walk holds the engine's lock, so that threads take turns.
template <each_step how>
bool step_bare(HANDLE thread, STACKFRAME64& frame, CONTEXT& context) {
  static HANDLE const mutex = CreateMutexW(nullptr, FALSE, nullptr);
  constexpr bool guarded = how == each_step::under_mutex;
  if (guarded) WaitForSingleObjectEx(mutex, INFINITE, TRUE);
  bool const done = StackWalk64(IMAGE_FILE_MACHINE_AMD64, GetCurrentProcess(), thread, &frame,
                                &context, nullptr, nullptr, nullptr, nullptr);
  if (guarded) ReleaseMutex(mutex);
  return done;
}

template <each_step how>
unsigned walk_bare(HANDLE thread, CONTEXT& context, address* frames, unsigned most) {
  STACKFRAME64 frame{};
  frame.AddrPC = {context.Rip, 0, AddrModeFlat};
  frame.AddrFrame = {context.Rbp, 0, AddrModeFlat};
  frame.AddrStack = {context.Rsp, 0, AddrModeFlat};
  unsigned count = 0;
  while (count != most && step_bare<how>(thread, frame, context))
    frames[count++] = frame.AddrPC.Offset;
  return count;
}

template <each_step how>
void walk_bare(address* frames) {
  CONTEXT context;
  RtlCaptureContext(&context);
  if (walk_bare<how>(GetCurrentThread(), context, frames, frame_count) != frame_count) abort();
}

void walk_deep(Walk walk) {
  hold_engine();
  address frames[frame_count];
  walk_below(frame_count, walk, frames);
  keep(frames);
}

// The stack that the rows of texts print.
struct Stack {
  Stack() {
    hold_engine();
    walk_below(frame_count, walk, frames);
  }
  address frames[frame_count];
};

Stack const& stack() {
  static Stack const walked;
  return walked;
}

void ask_bare(address frame) {
  IMAGEHLP_MODULE64 module{};
  module.SizeOfStruct = 1672;
  alignas(IMAGEHLP_SYMBOL64) char bytes[2048] = {};
  auto const symbol = reinterpret_cast<IMAGEHLP_SYMBOL64*>(bytes);
  symbol->SizeOfStruct = sizeof *symbol;
  symbol->MaxNameLength = 1960;
  IMAGEHLP_LINE64 line{};
  line.SizeOfStruct = sizeof line;
  DWORD64 displacement;
  DWORD column;
  auto const process = GetCurrentProcess();
  keep(SymGetModuleInfo64(process, frame, &module));
  keep(SymGetSymFromAddr64(process, frame, &displacement, symbol));
  keep(SymGetLineFromAddr64(process, frame, &column, &line));
}

// Where the dumps go.
void enter_temporary_folder() {
  static bool const entered = [] {
    char folder[MAX_PATH];
    return GetTempPathA(MAX_PATH, folder) && SetCurrentDirectoryA(folder);
  }();
  if (!entered) abort();
}

// A dump of a fault that lies here.
template <class Write>
void dump_here(Write write) {
  hold_engine();
  enter_temporary_folder();
  CONTEXT context;
  RtlCaptureContext(&context);
  EXCEPTION_RECORD record{};
  record.ExceptionCode = EXCEPTION_ACCESS_VIOLATION;
  EXCEPTION_POINTERS pointers{&record, &context};
  std::string const path = write(&pointers);
  if (!DeleteFileA(path.c_str())) abort();
}

std::string dump(EXCEPTION_POINTERS* pointers) {
  return EGeneric::SaveMiniDump(pointers, MiniDumpNormal, GetCurrentThreadId());
}

std::string dump_bare(EXCEPTION_POINTERS* pointers) {
  std::string const path = "velt-bench.dmp";
  HANDLE const file = CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                  CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  MINIDUMP_EXCEPTION_INFORMATION exception{GetCurrentThreadId(), pointers, TRUE};
  if (!MiniDumpWriteDump(GetCurrentProcess(), GetCurrentProcessId(), file, MiniDumpNormal,
                         &exception, nullptr, nullptr))
    abort();
  CloseHandle(file);
  return path;
}

char const* message = "Access Violation (read from 0x10)";
int code = EXCEPTION_ACCESS_VIOLATION;
int const volatile* nowhere = reinterpret_cast<int const volatile*>(0x10);

// What a fault brings, without its diagnostics.
[[gnu::noinline]] void throw_values() {
  throw EGeneric({"Text", input(message)}, {"Code", input(code)}, {"Address", 1}, {"Parameter0", 0},
                 {"Parameter1", 16});
}

[[gnu::noinline]] void read_nowhere() {
  int const value = *input(nowhere);
  keep(value);
}

template <auto fails>
void fail_and_catch() {
  try {
    fails();
  } catch (EGeneric const& error) {
    keep(error);
  }
}

template <bool watched>
void throw_often(std::uint64_t count) {
  UseVEH = watched;
  loop([] { fail_and_catch<throw_values>(); })(count);
  UseVEH = true;
}

void fault_often(std::uint64_t count) {
  temporary_redirect_structured_exceptions const translated;
  loop([] { fail_and_catch<read_nowhere>(); })(count);
}

// For the length of the process; each waits below some frames of its own.
class WaitingThreads {
public:
  WaitingThreads() {
    hold_engine();
    for (auto& thread : all)
      thread =
          CreateThread(nullptr, 0, wait, CreateEventW(nullptr, TRUE, FALSE, nullptr), 0, nullptr);
    Sleep(100);
  }

  HANDLE all[16];

private:
  static DWORD WINAPI wait(void* event) {
    walk_below(
        5, [](address* e) { WaitForSingleObject(e, INFINITE); }, static_cast<address*>(event));
    return 0;
  }
};

WaitingThreads const& waiting_threads() {
  static WaitingThreads const threads;
  return threads;
}

void take_snapshot() {
  keep(input(waiting_threads()));
  keep(TakeDebugSnapshot());
}

constexpr unsigned most_frames = 64;

struct OtherThread {
  HANDLE handle;
  unsigned frames;  // that a snapshot shows
};

unsigned frames_of(HANDLE thread) {
  address frames[most_frames];
  CONTEXT context;
  context.ContextFlags = CONTEXT_FULL;
  SuspendThread(thread);
  if (!GetThreadContext(thread, &context)) abort();
  unsigned const count = StackWalk(frames, &context, thread, 0, most_frames);
  ResumeThread(thread);
  return count;
}

// All but the calling one: those of earlier rows are there, too.
std::vector<OtherThread> other_threads() {
  std::vector<OtherThread> threads;
  HANDLE const list = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry;
  entry.dwSize = sizeof entry;
  for (bool more = Thread32First(list, &entry); more; more = Thread32Next(list, &entry))
    if (entry.th32OwnerProcessID == GetCurrentProcessId() &&
        entry.th32ThreadID != GetCurrentThreadId()) {
      HANDLE const handle = OpenThread(THREAD_ALL_ACCESS, FALSE, entry.th32ThreadID);
      threads.push_back({handle, frames_of(handle)});
    }
  CloseHandle(list);
  return threads;
}

// What a snapshot cannot do without, for the same stacks.
void walk_all_bare() {
  keep(input(waiting_threads()));
  static auto const threads = other_threads();
  address frames[most_frames];
  for (auto const& each : threads) SuspendThread(each.handle);
  for (auto const& each : threads) {
    CONTEXT context;
    context.ContextFlags = CONTEXT_FULL;
    if (!GetThreadContext(each.handle, &context)) abort();
    if (walk_bare<each_step::unguarded>(each.handle, context, frames, most_frames) != each.frames)
      abort();
    ResumeThread(each.handle);
  }
  CONTEXT own;
  RtlCaptureContext(&own);
  keep(walk_bare<each_step::unguarded>(GetCurrentThread(), own, frames, most_frames));
}

SmartPtrRefsLogger logger;

SmartPtrRefsLogger& enabled_logger() {
  static auto& enabled = *new SmartPtrRefsLogger;
  static bool const worked = enabled.EnableSmartPtrRefsLogger();
  if (!worked) abort();
  return enabled;
}

void record_here(address* frames) {
  enabled_logger().AddPointerRef(frames);
  enabled_logger().DelPointerRef(frames);
}

// The steps that the logger takes: without a context, as along a stack of 32 bits. The
// engine refuses the second and the third.
[[gnu::noipa]] void step_bare(address*) {
  STACKFRAME64 frame{};
  frame.AddrPC = {reinterpret_cast<address>(__builtin_return_address(0)), 0, AddrModeFlat};
  frame.AddrFrame = {reinterpret_cast<address>(__builtin_dwarf_cfa()) - 16, 0, AddrModeFlat};
  frame.AddrStack = {0, 0, AddrModeFlat};
  for (int i = 0; i != 3; ++i)
    keep(StackWalk64(IMAGE_FILE_MACHINE_I386, GetCurrentProcess(), GetCurrentThread(), &frame,
                     nullptr, nullptr, nullptr, nullptr, nullptr));
}

bool flag = false;

// Few frames, since each takes its time to unwind, whatever the exception.
[[gnu::noipa]] int recurse(int depth) {
  char volatile room[60'000];
  room[0] = 1;
  return depth < 0 ? 0 : recurse(depth + 1) + room[0];
}

void recover() {
  try {
    keep(recurse(0));
  } catch (EStackOverflowException const& error) {
    keep(error);
  }
  if (!EStackOverflowException::ResetStack()) abort();
}

unsigned int do_nothing(void*) { return 0; }

void throw_and_start() {
  fail_and_catch<throw_values>();
  unsigned int id;
  auto const thread =
      reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, do_nothing, nullptr, 0, &id));
  WaitForSingleObject(thread, INFINITE);
  CloseHandle(thread);
}

// The overflow alone: the first handler that the platform asks goes back.
CONTEXT before_overflow;
bool volatile overflowed;

LONG CALLBACK go_back(EXCEPTION_POINTERS* pointers) {
  if (pointers->ExceptionRecord->ExceptionCode != EXCEPTION_STACK_OVERFLOW)
    return EXCEPTION_CONTINUE_SEARCH;
  overflowed = true;
  *pointers->ContextRecord = before_overflow;
  return EXCEPTION_CONTINUE_EXECUTION;
}

void overflow_throw_and_start() {
  overflowed = false;
  void* const handler = AddVectoredExceptionHandler(1, go_back);
  RtlCaptureContext(&before_overflow);
  if (!overflowed) keep(recurse(0));
  RemoveVectoredExceptionHandler(handler);
  if (!_resetstkoflw()) abort();
  throw_and_start();
}

// On a thread that has room for an overflow.
template <auto run>
void run_often_on_thread(std::uint64_t count) {
  struct Overflowing final : TThreadClass {
    explicit Overflowing(std::uint64_t how_often) : rounds(how_often) {}
    void ThreadBody() override {
      for (std::uint64_t i = 0; i != rounds; ++i) run();
      ended = true;
    }
    std::uint64_t const rounds;
    bool ended = false;
  } thread(count);
  thread.StartThread();
  thread.StopThread(INFINITE);
  if (!thread.ended) abort();
}

}  // namespace

std::vector<Row> diagnostics_rows() {
  return {
      {"stack_walk",
       loop([] { walk_deep(walk); }),
       {{"StackWalk64", 1.1, loop([] { walk_deep(walk_bare<each_step::unguarded>); })},
        {"a mutex for each step", no_goal,
         loop([] { walk_deep(walk_bare<each_step::under_mutex>); })}}},

      {"stack_text",
       loop([] { keep(SymGetStackTrace(input(stack()).frames, frame_count)); }),
       {{"SymGet...FromAddr64", 1.1, loop([] {
           for (auto const frame : input(stack()).frames) ask_bare(frame);
         })}}},

      {"throw_watched", throw_often<true>, {{"unwatched", 1.15, throw_often<false>}}},

      {"throw_unwatched_cost",
       loop([] { throw_with_personality(); }),
       {{"own personality", 1.05, loop([] { throw_without_personality(); })}}},

      {"fault_to_exception",
       fault_often,
       {{"throw of EGeneric", 2.0, loop([] { fail_and_catch<throw_values>(); })}}},

      {"overflow_recover",
       run_often_on_thread<recover>,
       {{"throw, thread", no_goal, run_often_on_thread<throw_and_start>},
        {"overflow, throw, thread", 1.02, run_often_on_thread<overflow_throw_and_start>}}},

      {"dump",
       loop([] { dump_here(dump); }),
       {{"MiniDumpWriteDump", 1.1, loop([] { dump_here(dump_bare); })}}},

      {"refs_logger_off",
       loop([] { keep(input(logger).AddPointerRef(&flag)); }),
       {{"load and branch", 1.5, loop([] { keep(input(flag) ? GetTickCount() : 0); })}}},

      {"refs_logger_on",
       loop([] { walk_deep(record_here); }),
       {{"StackWalk64", 1.2, loop([] { walk_deep(step_bare); })}}},

      // The last one, since its threads stay.
      {"snapshot",
       loop([] { take_snapshot(); }),
       {{"SuspendThread ...", 1.05, loop([] { walk_all_bare(); })}}},
  };
}

}  // namespace bench
