#include "tests/faults/Scenarios.h"

#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <sstream>
#include <vector>

#include "velt/velt.h"

// The build says which of the functions this is, and whether it is exported.
#ifndef VELT_BUILD_API
#define VELT_BUILD_API
#endif

namespace velt_test {
namespace {

struct Note {
  std::string& log;
  char const* text;
  ~Note() { log.append("~").append(text).append(" "); }
};

template <class T>
T& object_at(Fault& fault) {
  return *reinterpret_cast<T*>(fault.nowhere);
}
char* text_at(Fault& fault) { return reinterpret_cast<char*>(fault.nowhere); }

#define VELT_IN_TRY(...)                  \
  [](Fault& fault) {                      \
    try {                                 \
      Note const note{fault.log, "note"}; \
      __VA_ARGS__;                        \
    } catch (EStructuredException&) {     \
      fault.log += "own";                 \
    }                                     \
  }
#define VELT_RESULT(...) VELT_IN_TRY(fault.result += (__VA_ARGS__))

constexpr char own_access[] = "the function's own read, write or division";
constexpr char call_of_nothing[] = "a call through a bad pointer";
constexpr char called[] = "a called function that may throw";
constexpr char never_throws[] = "a noexcept function";
constexpr char run_time[] = "a function of the C run time, or delete";
constexpr char conversion[] = "a conversion of a number";
constexpr char trap[] = "__builtin_trap";

using Text = std::string;
using Numbers = std::vector<int>;

Place const places[] = {
    {own_access, VELT_RESULT(*fault.nowhere)},
    {own_access, VELT_IN_TRY(*fault.nowhere = 1)},
    {own_access, VELT_RESULT(7 / (fault.nowhere - reinterpret_cast<int*>(0x10)))},
    {own_access, VELT_RESULT(fault.lowest / fault.minus_one)},
    {call_of_nothing, VELT_IN_TRY(reinterpret_cast<void (*)()>(fault.nowhere)())},
    {call_of_nothing, VELT_IN_TRY(object_at<std::function<void()>>(fault)())},
    {called, VELT_IN_TRY(Text const copy(object_at<Text>(fault)); fault.result += copy[0])},
    {called, VELT_IN_TRY(object_at<TMultiLock>(fault).ReadLock())},
    {called, VELT_RESULT(static_cast<int>(object_at<_value_t>(fault)))},
    {never_throws, VELT_RESULT(object_at<Text>(fault).size())},
    {never_throws, VELT_IN_TRY(for (int each : object_at<Numbers>(fault)) fault.result += each)},
    {never_throws, VELT_IN_TRY(Numbers const moved(std::move(object_at<Numbers>(fault)));
                               fault.result += moved.size())},
    {never_throws, VELT_RESULT(*object_at<std::unique_ptr<int>>(fault))},
    {never_throws, VELT_IN_TRY(auto const copy = object_at<SmartPtr<SmartPtrObj>>(fault);
                               fault.result += copy.get() != nullptr)},
    {never_throws, VELT_IN_TRY(_value_t const copy(object_at<_value_t>(fault));
                               fault.result += copy.size())},
    {run_time, VELT_RESULT(std::strlen(text_at(fault)))},
    {run_time, VELT_IN_TRY(char copy[9]; std::memcpy(copy, fault.nowhere, 9); fault.log += copy)},
    {run_time, VELT_IN_TRY(std::free(fault.nowhere))},
    {conversion, VELT_RESULT(static_cast<int>(fault.too_large))},
    {trap, VELT_IN_TRY(if (fault.nowhere) __builtin_trap())},
};

// Scenarios: what else stands around the fault, and what is done with it.

int read(int const* address) { return *address; }

void throw_if(bool wanted) {
  if (wanted) throw 1;
}

// The call site covers one instruction, and the address before it is another's.
void behind_the_end_of_another_try(Fault& fault) {
  try {
    throw_if(!fault.nowhere);
  } catch (...) {
    fault.log += "wrong handler";
  }
  try {
    fault.result = *fault.nowhere;
  } catch (EGeneric&) {
    fault.log += "caught";
  }
}

// When the read directly behind the call faults, its address is the return
// address of the other frames.
void recurse(Fault& fault, int depth) {
  if (depth != 0) {
    try {
      recurse(fault, depth - 1);
    } catch (EGeneric&) {
      fault.log += "call ";
      throw;
    }
  }
  try {
    fault.result += *fault.nowhere;
  } catch (EGeneric&) {
    fault.log += "read ";
    throw;
  }
}

// Its frame is found by a frame pointer.
void recurse_with_pointer(Fault& fault, int depth) {
  Note const note{fault.log, "frame"};
  auto const block = static_cast<char*>(__builtin_alloca(depth * 64 + 64));
  std::memset(block, depth, 64);
  if (depth != 0) recurse_with_pointer(fault, depth - 1);
  fault.result += *fault.nowhere + block[0];
}

struct FaultsAtItsEnd {
  Fault& fault;
  ~FaultsAtItsEnd() {
    try {
      Note const note{fault.log, "object"};
      fault.result = read(fault.nowhere + 1);
    } catch (EGeneric& error) {
      fault.log += error["Parameter1"].as_string() + " ";
    }
  }
};

void in_a_destructor_of_its_unwinding(Fault& fault) {
  FaultsAtItsEnd const object{fault};
  throw_if(!fault.nowhere);
  fault.result = *fault.nowhere;
}

BOOL CALLBACK see_once(INIT_ONCE*, void* parameter, void**) {
  auto& fault = *static_cast<Fault*>(parameter);
  Note const note{fault.log, "callback"};
  return *fault.nowhere;
}

void in_a_callback_of_the_system(Fault& fault) {
  Note const note{fault.log, "caller"};
  INIT_ONCE once = INIT_ONCE_STATIC_INIT;
  InitOnceExecuteOnce(&once, see_once, &fault, nullptr);
}

// Both bring a handler of their own, in a frame nearer to the fault.
void under_a_nearer_handler(Fault& fault) {
  fault.log += IsBadReadPtr(fault.nowhere, 4) ? "bad " : "good ";
  OutputDebugStringA("text for a debugger");
  fault.log += "undisturbed";
}

void in_a_destructor(Fault& fault) {
  struct Object {
    Fault& its;
    ~Object() { its.result = *its.nowhere; }
  } const object{fault};
}

// Kept, and thrown again where nothing must be thrown.
std::exception_ptr kept_of(Fault& fault) {
  try {
    fault.result = read(fault.nowhere);
  } catch (...) {
    return std::current_exception();
  }
  return nullptr;
}
void throw_kept(std::exception_ptr const& kept) noexcept { std::rethrow_exception(kept); }

// The run time is not linked with the library's routine. Its stream catches what the
// buffer throws, but does not call the buffer for a bad text.
struct BadBuffer : std::streambuf {
  explicit BadBuffer(int const* address) : nowhere(address) {}
  std::streamsize xsputn(char const*, std::streamsize) override { return *nowhere; }
  int const* nowhere;
};
void in_the_run_time(Fault& fault) {
  Note const note{fault.log, "note"};
  BadBuffer buffer(fault.nowhere);
  std::ostream stream(&buffer);
  stream << "text";
  fault.log += stream.bad() ? "bad " : "good ";
  stream << text_at(fault);
}

Scenario const scenarios[] = {
    {"BehindTheEndOfAnotherTry", behind_the_end_of_another_try, "caught"},
    {"InARecursion", [](Fault& fault) { recurse(fault, 2); }, "read call call next"},
    {"InFramesOfUnknownSize", [](Fault& fault) { recurse_with_pointer(fault, 2); },
     "~frame ~frame ~frame next"},
    {"InADestructorOfItsUnwinding", in_a_destructor_of_its_unwinding, "~object 20 next"},
    {"InADestructor", in_a_destructor, "next"},
    {"InACallbackOfTheSystem", in_a_callback_of_the_system, "~callback ~caller next"},
    {"UnderANearerHandler", under_a_nearer_handler, "bad undisturbed"},
    {"KeptAndThrownPastNoexcept", [](Fault& fault) { throw_kept(kept_of(fault)); }, "next"},
    {"InTheRunTime", in_the_run_time, "bad ~note next"},
};

// Under no handler, or past where none may pass.

void without_try(Fault& fault) {
  Note const note{fault.log, "note"};
  fault.result = read(fault.nowhere);
}

void in_try_for_others(Fault& fault) {
  try {
    without_try(fault);
  } catch (int) {
    fault.log += "caught";
  }
}

[[gnu::noipa]] void in_noexcept_with_try(Fault& fault) noexcept {
  try {
    fault.result = read(fault.nowhere);
  } catch (int) {
    fault.log += "caught";
  }
}

[[gnu::noipa]] void throw_in_handler(Fault& fault) {
  try {
    without_try(fault);
  } catch (EStructuredException&) {
    fault.log.clear();
    throw 1;
  }
}

[[gnu::noipa]] void handle_in_noexcept(Fault& fault) noexcept { throw_in_handler(fault); }

// The compiler must take the handler for one that is needed.
[[gnu::noipa]] void in_try(Fault& fault, void (*run)(Fault&)) {
  try {
    run(fault);
  } catch (...) {
    fault.log += "caught";
  }
}

End const ends[] = {
    {without_try, 0xC0000005, "unhandled"},
    {in_try_for_others, 3, "terminated by Access Violation (read from 0x10)"},
    // Since GCC 14 a noexcept function catches what it must not let pass.
    {[](Fault& fault) { in_try(fault, in_noexcept_with_try); }, 3,
     __GNUC__ < 14 ? "terminated amid an unwinding"
                   : "terminated by Access Violation (read from 0x10)"},
    {[](Fault& fault) { in_try(fault, handle_in_noexcept); }, 3, "terminated by something else"},
};

// Recursions. What is done with their results keeps them from becoming loops.

long plain(long depth) { return depth < 0 ? 1 : plain(depth + 1) ^ depth % 7; }

long below_noexcept(long depth) noexcept { return depth < 0 ? 0 : below_noexcept(depth + 1) ^ 1; }

long under_other_handlers(long depth) {
  try {
    throw_if(depth < 0);
    return under_other_handlers(depth + 1) ^ 1;
  } catch (int) {
    return 0;
  }
}

// As deep as no stack is; what the optimiser makes a loop of comes back.
struct Chain {
  std::unique_ptr<Chain> next, other;
  ~Chain() { other.reset(); }
};
long with_destructors(long) {
  auto chain = std::make_unique<Chain>();
  for (int i = 0; i < 30'000; ++i) {
    auto outer = std::make_unique<Chain>();
    (i % 2 ? outer->next : outer->other) = std::move(chain);
    chain = std::move(outer);
  }
  return 0;
}

// The body calls the next level, which is known by its name.
template <auto body>
long with(long depth) {
  return depth < 0 ? 1 : body(depth, with<body>);
}

template <int size>
long with_frames(long depth) {
  char room[size];
  room[depth % size] = 1;
  long const below = depth < 0 ? 0 : with_frames<size>(depth + 1);
  return below ^ room[(depth + 5) % size];
}

Recursion const recursions[] = {
    {"Plain", plain},
    {"WithSmallFrames", with_frames<200>},
    {"WithFramesOfNearlyAPage", with_frames<3900>},
    {"WithFramesOfPages", with_frames<20'000>},
    {"WithFramesOfManySizes", with<[](long depth, auto next) {
       auto const room = static_cast<char*>(__builtin_alloca(depth * 97 % 20'000 + 8));
       room[0] = 1;
       return next(depth + 1) ^ room[0];
     }>},
    {"BelowNoexcept", below_noexcept},
    {"UnderOtherHandlers", under_other_handlers},
    {"WithDestructors", with_destructors},
    {"WithSortedLists", with<[](long depth, auto next) {
       std::list<long> list{3, depth % 7, 2};
       list.sort();
       return next(depth + 1) ^ list.front();
     }>},
    {"WithBlocks", with<[](long depth, auto next) {
       auto const block = static_cast<char*>(std::malloc(depth % 50 + 20));
       block[3] = 1;
       long const result = next(depth + 1) ^ block[3];
       std::free(block);
       return result;
     }>, 64},
    // Frees what it finds: nothing else in the heap goes as deep under its lock.
    {"WithFreedBlocks", with<[](long depth, auto next) {
       static std::vector<std::unique_ptr<char[]>> blocks(7000);
       if (depth == 1)
         for (auto& block : blocks) block.reset(new char[20]);
       blocks[depth % blocks.size()].reset();
       return next(depth + 1) ^ depth % 3;
     }>},
    {"WithValues", with<[](long depth, auto next) {
       _value_t const first(static_cast<int>(depth)), second(first);
       return next(depth + 1) ^ static_cast<int>(second);
     }>},
    {"WithHeldLocks", with<[](long depth, auto next) {
       TMultiLock own;
       TLock const guard(own);
       return next(depth + 1) ^ 1;
     }>},
    {"WithTextsOfErrors", with<[](long depth, auto next) {
       EGeneric const error{{"Value", 1.5 + depth}};
       auto const length = static_cast<long>(std::strlen(error.what()));
       return next(depth + 1) ^ length;
     }>},
    // Few statements, since each takes the kernel's lock.
    {"WithALog", with<[](long depth, auto next) {
       char volatile room[1000];
       room[0] = 1;
       Debug << static_cast<int>(depth) << '\n';
       return next(depth + 1) ^ room[0];
     }>},
    // Their own handlers swallow exceptions.
    {"WithStreams", with<[](long depth, auto next) {
       std::ostringstream stream;
       stream << depth;
       return next(depth + 1) ^ stream.str()[0];
     }>, 64},
};

}  // namespace

VELT_BUILD_API Build VELT_BUILD() { return {VELT_BUILD_NAME, places, scenarios, recursions, ends}; }

}  // namespace velt_test
