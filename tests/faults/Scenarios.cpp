#include "tests/faults/Scenarios.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <list>
#include <map>
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
constexpr char unknown[] = "__builtin_trap";

using Text = std::string;
using Numbers = std::vector<int>;
using Map = std::map<int, int>;

Place const places[] = {
    {own_access, VELT_RESULT(*fault.nowhere)},
    {own_access, VELT_IN_TRY(*fault.nowhere = 1)},
    {own_access, VELT_RESULT(7 / (fault.nowhere - reinterpret_cast<int*>(0x10)))},
    {call_of_nothing, VELT_IN_TRY(reinterpret_cast<void (*)()>(fault.nowhere)())},
    {call_of_nothing, VELT_IN_TRY(object_at<std::function<void()>>(fault)())},
    {called, VELT_IN_TRY(Text const copy(object_at<Text>(fault)); fault.result += copy[0])},
    {called, VELT_IN_TRY(object_at<Numbers>(fault).push_back(1))},
    {called, VELT_IN_TRY(object_at<std::list<int>>(fault).sort())},
    {called, VELT_IN_TRY(object_at<TMultiLock>(fault).ReadLock())},
    {called, VELT_RESULT(static_cast<int>(object_at<_value_t>(fault)))},
    {never_throws, VELT_RESULT(object_at<Text>(fault).size())},
    {never_throws, VELT_IN_TRY(object_at<Text>(fault) += "x")},
    {never_throws, VELT_RESULT(object_at<Text>(fault) == "abc")},
    {never_throws, VELT_RESULT(object_at<Numbers>(fault).empty())},
    {never_throws, VELT_RESULT(object_at<Numbers>(fault)[3])},
    {never_throws, VELT_IN_TRY(for (int each : object_at<Numbers>(fault)) fault.result += each)},
    {never_throws, VELT_IN_TRY(Numbers const moved(std::move(object_at<Numbers>(fault)));
                               fault.result += moved.size())},
    {never_throws, VELT_RESULT(object_at<Map>(fault).count(1))},
    {never_throws, VELT_IN_TRY(object_at<Map>(fault)[1] = 2)},
    {never_throws, VELT_RESULT(*object_at<std::unique_ptr<int>>(fault))},
    {never_throws, VELT_RESULT(object_at<std::atomic<int>>(fault).load())},
    {never_throws, VELT_IN_TRY(auto const copy = object_at<std::shared_ptr<int>>(fault);
                               fault.result += *copy)},
    {never_throws, VELT_IN_TRY(auto const copy = object_at<SmartPtr<SmartPtrObj>>(fault);
                               fault.result += copy.get() != nullptr)},
    {never_throws, VELT_IN_TRY(_value_t const copy(object_at<_value_t>(fault));
                               fault.result += copy.size())},
    {run_time, VELT_RESULT(std::strlen(text_at(fault)))},
    {run_time, VELT_IN_TRY(char copy[30]; std::strcpy(copy, text_at(fault)); fault.log += copy)},
    {run_time, VELT_RESULT(std::strcmp("abc", text_at(fault)))},
    {run_time, VELT_IN_TRY(char copy[9]; std::memcpy(copy, fault.nowhere, 9); fault.log += copy)},
    {run_time, VELT_IN_TRY(std::memset(fault.nowhere, 0, 20))},
    {run_time, VELT_RESULT(std::strtol(text_at(fault), nullptr, 10))},
    {run_time, VELT_RESULT(std::wcslen(reinterpret_cast<wchar_t*>(fault.nowhere)))},
    {run_time, VELT_IN_TRY(std::free(fault.nowhere))},
    {run_time, VELT_IN_TRY(delete fault.nowhere)},
    {run_time, VELT_IN_TRY(delete &object_at<Text>(fault))},
    {unknown, VELT_IN_TRY(if (fault.nowhere) __builtin_trap())},
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

// Each place both throws and faults: what is known of one must not be taken for
// the other.
void in_turn_with_throws(Fault& fault) {
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
      fault.result += *fault.nowhere;
    } catch (EGeneric&) {
      ++faults;
    } catch (...) {
      ++mistakes;
    }
  }
  for (int const count : {throws, faults, mistakes}) fault.log += std::to_string(count) + " ";
}

void past_other_handlers(Fault& fault) {
  Note const outer{fault.log, "outer"};
  try {
    Note const inner{fault.log, "inner"};
    fault.result = read(fault.nowhere);
  } catch (int) {
    fault.log += "wrong handler";
  }
}

// Inlined, it would be a try block of the function that must not throw.
[[gnu::noinline]] void thrown_on(Fault& fault) {
  try {
    Note const note{fault.log, "first"};
    fault.result = read(fault.nowhere);
  } catch (EGeneric&) {
    Note const note{fault.log, "second"};
    throw;
  }
}

void in_handlers(Fault& fault) {
  try {
    throw_if(true);
  } catch (int) {
    Note const note{fault.log, "throw's"};
    try {
      fault.result = read(fault.nowhere + 1);
    } catch (EGeneric& error) {
      fault.log += error["Parameter1"].as_string() + " ";
      fault.result = read(fault.nowhere);
    }
  }
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

void throw_on_without_leave(Fault& fault) noexcept { thrown_on(fault); }

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

// Below functions of the run time, which has handlers and is not linked with the
// library's routine.
void in_the_run_time(Fault& fault) {
  Note const note{fault.log, "note"};
  std::ostringstream stream;
  stream << text_at(fault);
}

Scenario const scenarios[] = {
    {"BehindTheEndOfAnotherTry", behind_the_end_of_another_try, "caught"},
    {"InARecursion", [](Fault& fault) { recurse(fault, 2); }, "read call call next"},
    {"InFramesOfUnknownSize", [](Fault& fault) { recurse_with_pointer(fault, 2); },
     "~frame ~frame ~frame next"},
    {"InTurnWithThrows", in_turn_with_throws, "17 50 0 "},
    {"PastOtherHandlers", past_other_handlers, "~inner ~outer next"},
    {"ThrownOn", thrown_on, "~first ~second next"},
    {"InHandlers", in_handlers, "20 ~throw's next"},
    {"InADestructorOfItsUnwinding", in_a_destructor_of_its_unwinding, "~object 20 next"},
    {"InACallbackOfTheSystem", in_a_callback_of_the_system, "~callback ~caller next"},
    {"UnderANearerHandler", under_a_nearer_handler, "bad undisturbed"},
    {"ThrownOnPastNoexcept", throw_on_without_leave, "~first ~second next"},
    {"KeptAndThrownPastNoexcept", [](Fault& fault) { throw_kept(kept_of(fault)); }, "next"},
    {"InTheRunTime", in_the_run_time, "~note next"},
};

// Recursions. What is done with their results keeps them from becoming loops.

long plain(long depth) { return depth < 0 ? 1 : plain(depth + 1) ^ depth % 7; }

long with_an_array(long depth) {
  char room[200];
  std::memset(room, static_cast<int>(depth), sizeof room);
  return depth < 0 ? 0 : with_an_array(depth + 1) ^ room[depth % 200];
}

long twice(long depth) { return depth < 0 ? 1 : twice(depth + 1) + twice(depth + 2); }

long in_turns(long depth, long other) {
  return depth < 0 ? other : in_turns(other + 1, depth + 1) ^ other;
}

template <int size>
long with_frames(long depth) {
  char room[size];
  room[depth % size] = 1;
  long const below = depth < 0 ? 0 : with_frames<size>(depth + 1);
  return below ^ room[(depth + 5) % size];
}

long with_frames_of_many_sizes(long depth) {
  auto const room = static_cast<char*>(__builtin_alloca(depth * 97 % 20'000 + 8));
  room[0] = 1;
  return depth < 0 ? 0 : with_frames_of_many_sizes(depth + 1) ^ room[0];
}

long below_noexcept(long depth) noexcept { return depth < 0 ? 0 : below_noexcept(depth + 1) ^ 1; }

long under_other_handlers(long depth) {
  try {
    throw_if(depth < 0);
    return under_other_handlers(depth + 1) ^ 1;
  } catch (int) {
    return 0;
  }
}

long with_strings(long depth) {
  auto text = std::to_string(depth) + "a text that needs a block";
  text += text;
  long const below = depth < 0 ? 0 : with_strings(depth + 1);
  return below ^ text[1];
}

long with_vectors(long depth) {
  Numbers numbers;
  for (int i = 0; i < 5; ++i) numbers.push_back(i);
  long const below = depth < 0 ? 0 : with_vectors(depth + 1);
  return below ^ numbers[2];
}

long with_maps(long depth) {
  Map map;
  map[depth % 5] = 2;
  map[depth % 3] = 1;
  long const below = depth < 0 ? 0 : with_maps(depth + 1);
  return below ^ map[1];
}

long with_sorted_lists(long depth) {
  std::list<int> list{3, static_cast<int>(depth % 7), 2};
  list.sort();
  long const below = depth < 0 ? 0 : with_sorted_lists(depth + 1);
  return below ^ list.front();
}

struct Tree {
  std::unique_ptr<Tree> left, right;
};
std::unique_ptr<Tree> grown(long depth) {
  auto tree = std::make_unique<Tree>();
  if (depth > 0) tree->left = grown(depth + 1);
  return tree;
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

long with_blocks(long depth) {
  auto const block = static_cast<char*>(std::malloc(depth % 50 + 20));
  block[3] = 1;
  long const below = depth < 0 ? 0 : with_blocks(depth + 1);
  long const result = below ^ block[3];
  std::free(block);
  return result;
}

long with_functions(long depth) {
  std::function<long(long)> const function = [depth](long) {
    return depth < 0 ? 0 : with_functions(depth + 1);
  };
  return function(depth) ^ 1;
}

long with_shared_pointers(long depth) {
  auto const first = std::make_shared<long>(depth), second = first;
  long const below = depth < 0 ? 0 : with_shared_pointers(depth + 1);
  return below ^ *second;
}

struct Counted : SmartPtrObj {
  long number = 1;
};
long with_smart_pointers(long depth) {
  auto const first = MakeCounted<Counted>(), second = first;
  long const below = depth < 0 ? 0 : with_smart_pointers(depth + 1);
  return below ^ second->number;
}

long with_values(long depth) {
  _value_t const first(static_cast<int>(depth)), second(first);
  long const below = depth < 0 ? 0 : with_values(depth + 1);
  return below ^ static_cast<int>(second);
}

TMultiLock lock;
long with_locks(long depth) {
  lock.ReadLock();
  lock.Unlock();
  return depth < 0 ? 0 : with_locks(depth + 1) ^ 1;
}

long with_held_locks(long depth) {
  TMultiLock own;
  TLock const guard(own);
  return depth < 0 ? 0 : with_held_locks(depth + 1) ^ 1;
}

long with_texts_of_errors(long depth) {
  EGeneric const error{{"Value", 1.5 + depth}};
  long const length = std::strlen(error.what());
  return depth < 0 ? 0 : with_texts_of_errors(depth + 1) ^ length;
}

long with_a_log(long depth) {
  Debug << static_cast<int>(depth) << '\n';
  return depth < 0 ? 0 : with_a_log(depth + 1) ^ 1;
}

// The run time's streams swallow exceptions.
long with_streams(long depth) {
  std::ostringstream stream;
  stream << depth;
  long const below = depth < 0 ? 0 : with_streams(depth + 1);
  return below ^ stream.str()[0];
}

Recursion const recursions[] = {
    {"Plain", plain},
    {"WithAnArray", with_an_array},
    {"Twice", twice},
    {"InTurns", [](long depth) { return in_turns(depth, depth); }},
    {"WithFramesOfNearlyAPage", with_frames<3900>},
    {"WithFramesOfPages", with_frames<20'000>},
    {"WithFramesOfManySizes", with_frames_of_many_sizes},
    {"BelowNoexcept", below_noexcept},
    {"UnderOtherHandlers", under_other_handlers},
    {"WithStrings", with_strings},
    {"WithVectors", with_vectors},
    {"WithMaps", with_maps},
    {"WithSortedLists", with_sorted_lists},
    {"WithTrees", [](long depth) { return grown(depth) ? 1L : 0L; }},
    {"WithDestructors", with_destructors},
    {"WithBlocks", with_blocks},
    {"WithFunctions", with_functions},
    {"WithSharedPointers", with_shared_pointers},
    {"WithSmartPointers", with_smart_pointers},
    {"WithValues", with_values},
    {"WithLocks", with_locks},
    {"WithHeldLocks", with_held_locks},
    {"WithTextsOfErrors", with_texts_of_errors},
    {"WithALog", with_a_log},
    {"WithStreams", with_streams},
};

}  // namespace

VELT_BUILD_API Build VELT_BUILD() { return {VELT_BUILD_NAME, places, scenarios, recursions}; }

}  // namespace velt_test
