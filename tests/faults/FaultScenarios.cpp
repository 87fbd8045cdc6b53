#include "tests/faults/FaultScenarios.h"

#include <windows.h>

#include <exception>

#include "velt/faults/StructuredException.h"

// The build says which of the functions this is, and whether it is exported.
#ifndef VELT_SCENARIO_API
#define VELT_SCENARIO_API
#endif

namespace velt_test {
namespace {

using Log = std::string;
using Address = int volatile*;

// What nothing is known about at compile time.
Address volatile nowhere = reinterpret_cast<Address>(0x10);
int volatile result;

class Note {
public:
  Note(Log& destination, char const* what) : log(destination), text(what) {}
  ~Note() { log.append("~").append(text).append(" "); }

private:
  Log& log;
  char const* text;
};

[[gnu::noipa]] void nothing() {}
[[gnu::noipa]] void throw_if(bool wanted) {
  if (wanted) throw 1;
}
[[gnu::noipa]] int read(Address address) { return *address; }

void in_the_try_itself(Log& log) {
  Address const address = nowhere;
  try {
    Note const note(log, "object");
    nothing();
    result = *address;
    nothing();
  } catch (EStructuredException&) {
    log += "caught";
  }
}

// The call site covers one instruction, and the address before it is another's.
void behind_the_end_of_another_try(Log& log) {
  Address const address = nowhere;
  try {
    nothing();
  } catch (...) {
    log += "wrong handler";
  }
  try {
    result = *address;
  } catch (EGeneric&) {
    log += "caught";
  }
}

// When the read directly behind the call faults, its address is the return
// address of the other frames.
[[gnu::noipa]] void recurse(Log& log, Address address, int depth) {
  if (depth != 0) {
    try {
      recurse(log, address, depth - 1);
    } catch (EGeneric&) {
      log += "call ";
      throw;
    }
  }
  try {
    result = *address;
  } catch (EGeneric&) {
    log += "read ";
    throw;
  }
}

void in_a_recursion(Log& log) { recurse(log, nowhere, 2); }

// Its frame is found by a frame pointer.
[[gnu::noipa]] void recurse_with_pointer(Log& log, Address address, int depth) {
  Note const note(log, "frame");
  auto const block = static_cast<char volatile*>(__builtin_alloca(depth * 64 + 64));
  block[0] = 0;
  if (depth != 0) recurse_with_pointer(log, address, depth - 1);
  result = *address;
}

void in_frames_of_unknown_size(Log& log) { recurse_with_pointer(log, nowhere, 2); }

// Each place both throws and faults: what is known of one must not be taken for
// the other.
void in_turn_with_throws(Log& log) {
  Address const address = nowhere;
  int throws = 0, faults = 0, mistakes = 0;
  for (int i = 0; i < 50; ++i) {
    try {
      throw_if(i % 3 == 0);
    } catch (int) {
      ++throws;
    } catch (...) {
      ++mistakes;
    }
    try {
      result = *address;
    } catch (EGeneric&) {
      ++faults;
    } catch (...) {
      ++mistakes;
    }
  }
  log += std::to_string(throws) + " " + std::to_string(faults) + " " + std::to_string(mistakes);
}

[[gnu::noipa]] void catch_something_else(Log& log) {
  Note const note(log, "inner");
  try {
    read(nowhere);
  } catch (int) {
    log += "wrong handler ";
  }
}

void past_frames_and_other_handlers(Log& log) {
  Note const note(log, "outer");
  catch_something_else(log);
}

void by_a_call_of_nothing(Log& log) {
  auto volatile const function = reinterpret_cast<void (*)()>(0x20);
  Note const note(log, "object");
  function();
}

void thrown_on(Log& log) {
  try {
    Note const note(log, "first");
    read(nowhere);
  } catch (EGeneric&) {
    Note const note(log, "second");
    throw;
  }
}

void in_a_handler(Log& log) {
  try {
    throw_if(true);
  } catch (int) {
    Note const note(log, "in handler");
    read(nowhere);
  }
}

void in_the_handler_of_a_fault(Log& log) {
  try {
    read(nowhere + 1);
  } catch (EGeneric& error) {
    log += error["Parameter1"].as_string() + " ";
    read(nowhere);
  }
}

struct FaultsAtItsEnd {
  explicit FaultsAtItsEnd(Log& destination) : log(destination) {}
  ~FaultsAtItsEnd() {
    try {
      Note const note(log, "object");
      read(nowhere + 1);
    } catch (EGeneric& error) {
      log += error["Parameter1"].as_string() + " ";
    }
  }
  Log& log;
};

void in_a_destructor_of_its_unwinding(Log& log) {
  Address const address = nowhere;
  FaultsAtItsEnd const object(log);
  nothing();
  result = *address;
  nothing();
}

BOOL CALLBACK see_once(INIT_ONCE*, void* log, void**) {
  Note const note(*static_cast<Log*>(log), "callback");
  return read(nowhere);
}

void in_a_callback_of_the_system(Log& log) {
  Note const note(log, "caller");
  INIT_ONCE once = INIT_ONCE_STATIC_INIT;
  InitOnceExecuteOnce(&once, see_once, &log, nullptr);
}

// Both bring a handler of their own, in a frame nearer to the fault.
void under_a_nearer_handler(Log& log) {
  log += IsBadReadPtr(const_cast<int*>(nowhere), 4) ? "bad " : "good ";
  OutputDebugStringA("text for a debugger");
  log += "undisturbed";
}

// Those that are to end by a fault, which the log then tells.
template <auto scenario>
void guarded(Log& log) {
  try {
    scenario(log);
  } catch (EStructuredException& error) {
    log += error["Text"].as_string();
  }
}

#define VELT_BAD_READ "Access Violation (read from 0x10)"

FaultScenario const scenarios[] = {
    {"InTheTryItself", in_the_try_itself, "~object caught"},
    {"BehindTheEndOfAnotherTry", behind_the_end_of_another_try, "caught"},
    {"InARecursion", guarded<in_a_recursion>, "read call call " VELT_BAD_READ},
    {"InFramesOfUnknownSize", guarded<in_frames_of_unknown_size>,
     "~frame ~frame ~frame " VELT_BAD_READ},
    {"InTurnWithThrows", in_turn_with_throws, "17 50 0"},
    {"PastFramesAndOtherHandlers", guarded<past_frames_and_other_handlers>,
     "~inner ~outer " VELT_BAD_READ},
    {"ByACallOfNothing", guarded<by_a_call_of_nothing>, "~object Access Violation (write to 0x20)"},
    {"ThrownOn", guarded<thrown_on>, "~first ~second " VELT_BAD_READ},
    {"InAHandler", guarded<in_a_handler>, "~in handler " VELT_BAD_READ},
    {"InTheHandlerOfAFault", guarded<in_the_handler_of_a_fault>, "20 " VELT_BAD_READ},
    {"InADestructorOfItsUnwinding", guarded<in_a_destructor_of_its_unwinding>,
     "~object 20 " VELT_BAD_READ},
    {"InACallbackOfTheSystem", guarded<in_a_callback_of_the_system>,
     "~callback ~caller " VELT_BAD_READ},
    {"UnderANearerHandler", guarded<under_a_nearer_handler>, "bad undisturbed"},
};

}  // namespace

VELT_SCENARIO_API std::span<FaultScenario const> VELT_SCENARIOS() { return scenarios; }

}  // namespace velt_test
