// Ends in the way that its argument names. Says on the way how it ends.
#include <windows.h>

#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>

#include "tests/crash/Crash.h"
#include "velt/diagnostics/Settings.h"
#include "velt/faults/StackOverflowException.h"
#include "velt/faults/StructuredException.h"
#include "velt/threads/ThreadClass.h"

namespace crash {

void say(char const* text) {
  std::fputs(text, stdout);
  std::fflush(stdout);
}

Note::~Note() { say("cleaned up. "); }

void nothing() { asm volatile(""); }

int read(int const volatile* address) { return *address; }

int const volatile* volatile nowhere = reinterpret_cast<int const volatile*>(0x10);

}  // namespace crash

namespace {

using namespace crash;

// In place of the platform's dialogue. The process ends with the code.
LONG CALLBACK say_unhandled(EXCEPTION_POINTERS* pointers) {
  std::printf("unhandled %lx", pointers->ExceptionRecord->ExceptionCode);
  std::fflush(stdout);
  return EXCEPTION_EXECUTE_HANDLER;
}

[[noreturn]] void say_terminated() {
  if (!std::current_exception()) {
    say("terminated amid an unwinding");
    std::_Exit(3);
  }
  try {
    std::rethrow_exception(std::current_exception());
  } catch (EGeneric& error) {
    std::printf("terminated by %s", error.get_value("Text").as_string().c_str());
  } catch (...) {
    std::printf("terminated by something else");
  }
  std::fflush(stdout);
  std::_Exit(3);
}

void fault_without_try() {
  redirect_structured_exceptions();
  Note const note;
  read(nowhere);
}

void fault_under_other_handlers() {
  redirect_structured_exceptions();
  try {
    Note const note;
    read(nowhere);
  } catch (int) {
    say("caught");
  }
}

// Runs it under a handler of everything, which the compiler must take for one
// that is needed.
[[gnu::noipa]] void guarded(void (*action)()) {
  redirect_structured_exceptions();
  try {
    action();
  } catch (...) {
    say("caught");
  }
}

[[gnu::noipa]] void throw_in_handler() {
  try {
    read(nowhere);
  } catch (EStructuredException&) {
    throw 1;
  }
}

[[gnu::noipa]] void handle_in_noexcept() noexcept { throw_in_handler(); }

[[gnu::noipa]] void try_in_noexcept() noexcept {
  try {
    read(nowhere);
  } catch (int) {
    say("caught");
  }
}

struct FaultsAtItsEnd {
  ~FaultsAtItsEnd() { read(nowhere); }
};

[[gnu::noipa]] int recurse(int depth) {
  char volatile room[200];
  room[0] = 1;
  return depth < 0 ? 0 : recurse(depth + 1) + room[0];
}

void overflow_and_catch() {
  try {
    recurse(0);
  } catch (EStackOverflowException&) {
    say("caught. ");
  }
}

void overflow_twice_without_reset() {
  struct Overflowing final : TThreadClass {
    void ThreadBody() override {
      overflow_and_catch();
      overflow_and_catch();
      say("went on");
    }
  } thread;
  thread.StartThread();
  thread.WaitForSingleObject(INFINITE, FALSE);
}

void overflow_on_main_thread_with_guarantee() {
  redirect_structured_exceptions();
  ULONG bytes = 16384;
  SetThreadStackGuarantee(&bytes);
  _resetstkoflw();
  for (int round = 0; round < 2; ++round) {
    overflow_and_catch();
    EStackOverflowException::ResetStack();
  }
  say("went on");
}

constexpr struct {
  std::string_view name;
  void (*run)();
} ways[] = {
    {"fault_without_try", fault_without_try},
    {"fault_under_other_handlers", fault_under_other_handlers},
    {"fault_in_noexcept_with_try", [] { guarded([] { try_in_noexcept(); }); }},
    {"new_throw_in_noexcept", [] { guarded([] { handle_in_noexcept(); }); }},
    {"fault_in_destructor", [] { guarded([] { FaultsAtItsEnd const object; }); }},
    {"fault_without_the_option", [] { guarded([] { read_without_the_option(nowhere); }); }},
    {"overflow_twice_without_reset", overflow_twice_without_reset},
    {"overflow_on_main_thread_with_guarantee", overflow_on_main_thread_with_guarantee},
};

}  // namespace

int main(int count, char** arguments) {
  SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = false;
  SetUnhandledExceptionFilter(say_unhandled);
  std::set_terminate(say_terminated);
  for (auto const& [name, run] : ways)
    if (count == 2 && name == arguments[1]) {
      run();
      return 0;
    }
  return 1;
}
