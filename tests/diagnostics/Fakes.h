// For a program with its own copy of what writes dumps and debug information:
// in place of the symbol engine, of the platform's locks and of the settings
// stand fakes that are told what to answer and write down what is called.
#pragma once

#include <windows.h>

#include <dbghelp.h>
#undef StackWalk

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"

namespace velt_test {

struct Fakes {
  // The names of the calls, the releases with "~" in front.
  std::string calls;

  bool engine_is_there = true;
  long holds = 0;
  // What a walk finds, and in which modules; in none of them nobody is to blame.
  std::vector<unsigned __int64> frames;
  std::map<unsigned __int64, std::string> modules;
  CONTEXT* walked = nullptr;
  HANDLE walked_thread = nullptr;
  unsigned int skipped = 0;

  bool throws_are_watched = false;

  LONG loader_status = 0;
  ULONG loader_state = 1;
  bool peb_is_free = true;
  bool heap_locks = true;

  bool writer_succeeds = true;
  HANDLE written_file = nullptr;
  MINIDUMP_TYPE written_type = MiniDumpNormal;
  bool with_exception = false;
  MINIDUMP_EXCEPTION_INFORMATION exception{};

  HANDLE made_file = nullptr;
};

Fakes& fakes();

// Format of the paths, which the library keeps constant.
extern char dump_format[100];

// In place of the process heap, of which only the header is looked at.
extern std::byte heap_header[1024];

// The critical section that the header names at load, at an address of 32 bits.
CRITICAL_SECTION* heap_section();
void let_another_thread_take_heap_section();

// A new folder as the current one, the fakes and the settings as at the start.
class Fresh {
public:
  Fresh();
  ~Fresh();

private:
  std::filesystem::path const before = std::filesystem::current_path();
  scratch_folder folder;
};

}  // namespace velt_test
