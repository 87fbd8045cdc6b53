#include <windows.h>

#include <dbghelp.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "bench/Rows.h"
#include "velt/diagnostics/Symbols.h"
#include "velt/exceptions/EGeneric.h"

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

void walk_bare(address* frames) {
  CONTEXT context;
  RtlCaptureContext(&context);
  STACKFRAME64 frame{};
  frame.AddrPC = {context.Rip, 0, AddrModeFlat};
  frame.AddrFrame = {context.Rbp, 0, AddrModeFlat};
  frame.AddrStack = {context.Rsp, 0, AddrModeFlat};
  for (unsigned i = 0; i != frame_count; ++i) {
    if (!StackWalk64(IMAGE_FILE_MACHINE_AMD64, GetCurrentProcess(), GetCurrentThread(), &frame,
                     &context, nullptr, nullptr, nullptr, nullptr))
      abort();
    frames[i] = frame.AddrPC.Offset;
  }
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

}  // namespace

std::vector<Row> diagnostics_rows() {
  return {
      {"stack_walk",
       loop([] { walk_deep(walk); }),
       {{"StackWalk64", 1.1, loop([] { walk_deep(walk_bare); })}}},

      {"stack_text",
       loop([] { keep(SymGetStackTrace(input(stack()).frames, frame_count)); }),
       {{"SymGet...FromAddr64", 1.1, loop([] {
           for (auto const frame : input(stack()).frames) ask_bare(frame);
         })}}},

      {"dump",
       loop([] { dump_here(dump); }),
       {{"MiniDumpWriteDump", 1.1, loop([] { dump_here(dump_bare); })}}},
  };
}

}  // namespace bench
