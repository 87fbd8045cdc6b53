// Stands in for calls of the platform that velt.dll and the test program make: in
// their import tables, and where they look an entry up by its name. All of it is
// for one test at a time; objects end in the opposite order of their making.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace velt_test {

// A call by its name and its type: VELT_CALL(CreateEventW).
template <class Function>
struct Call {
  char const* name;
};
#define VELT_CALL(CALL) (velt_test::Call<decltype(&CALL)>{#CALL})

// The modules whose calls are replaced; null is the program.
inline std::vector<wchar_t const*> patched_modules{nullptr, L"velt.dll"};

namespace detail {

struct Entry {
  std::string_view name;
  void* stand_in = nullptr;
  void* platform = nullptr;  // the platform's, or the one replaced before
  bool is_imported = false;  // otherwise known only when it is looked up
};

// Replaces the entries while it lives. A stand-in that is kept elsewhere goes on to
// the platform afterwards.
class Patches {
public:
  explicit Patches(std::vector<Entry*> const& entries);
  ~Patches();
  Patches(Patches const&) = delete;

private:
  void replace(Entry& entry);

  std::vector<std::pair<void**, void*>> slots;  // and what stood in them
  std::size_t const before;
};

// The function that the modules find instead of the platform's.
template <class Function, class Body>
struct StandIn;
template <class Result, class... Parameters, class Body>
struct StandIn<Result(WINAPI*)(Parameters...), Body> {
  static Result WINAPI call(Parameters... arguments) {
    auto const platform = reinterpret_cast<Result(WINAPI*)(Parameters...)>(entry.platform);
    return body ? (*body)(platform, arguments...) : platform(arguments...);
  }
  static Entry& begin(char const* name, Body const& answering) {
    body = &answering;
    entry.name = name;
    entry.stand_in = reinterpret_cast<void*>(call);
    return entry;
  }
  static inline Body const* body = nullptr;
  static inline constinit Entry entry;
};

}  // namespace detail

// While it lives, body(platform's function, arguments...) answers the call:
//
//   Replacement const late{VELT_CALL(WaitForSingleObjectEx),
//                          [](auto...) -> DWORD { return WAIT_TIMEOUT; }};
template <class Function, class Body>
class Replacement {
public:
  Replacement(Call<Function> call, Body answer)
      : body(std::move(answer)), patches({&stand_in::begin(call.name, body)}) {}
  ~Replacement() { stand_in::body = nullptr; }
  Replacement(Replacement const&) = delete;

private:
  using stand_in = detail::StandIn<Function, Body>;

  Body const body;
  detail::Patches const patches;
};

// What a call answers that does not reach the platform: its result, the last
// error, the numbers for its places for such in their order, and the bytes for its
// block.
struct Answer {
  std::uintptr_t result;
  DWORD code = 0;
  std::vector<DWORD> numbers = {};
  std::string block = {};
};

constexpr int injected_code = 1234;

// Writes down every call that VELT_WATCH names, "ResetEvent(handle)SleepEx(3, 1)".
class Watch {
public:
  // `call`: the name of the one that fails; `instead`: in place of its usual
  // answer to failure.
  explicit Watch(std::string const& call = "", std::optional<void*> instead = {});
  // No call reaches the platform: they get these answers, each as it comes.
  explicit Watch(std::vector<Answer> const& script);
  ~Watch();
  Watch(Watch const&) = delete;

  std::string calls;
  std::string failing;
  int passing = 0;  // so many of the failing calls succeed first
  std::optional<void*> answer;
  DWORD code = injected_code;
  std::optional<std::vector<Answer>> answers;

  static inline Watch* current = nullptr;
  static inline std::vector<detail::Entry*> known;

  // For a call that begins; none if it goes on to the platform.
  static std::optional<Answer> answer_to(char const* call, std::uintptr_t usual_failure,
                                         std::initializer_list<std::string> arguments);

private:
  Watch* const outer;
  std::optional<detail::Patches> patches;
};

// Loads velt.dll into a program that is not linked with it; null if it cannot be
// loaded. `patch` runs when the library has its imports and has not run yet.
HMODULE load_velt(void (*patch)());

// What operations move.
inline char buffer[16];

namespace detail {

std::string text_of(SECURITY_ATTRIBUTES const& attributes);

// Of an argument: numbers as such, names, and of all else what it is.
template <class T>
std::string text_of_argument(T argument) {
  using Target = std::remove_pointer_t<T>;
  using Data = std::remove_cv_t<Target>;
  if constexpr (std::is_integral_v<T>) {
    return std::to_string(argument);
  } else if constexpr (std::is_same_v<T, LARGE_INTEGER>) {
    return std::to_string(argument.QuadPart);
  } else if constexpr (!std::is_pointer_v<T>) {
    return "record";
  } else if constexpr (std::is_function_v<Target>) {
    return argument ? "routine" : "none";
  } else {
    if (!argument) return "none";
    if (static_cast<void const*>(argument) == buffer) return "buffer";
    if constexpr (std::is_same_v<Data, char> || std::is_same_v<Data, wchar_t>) {
      // A place for a text may hold anything yet.
      std::string name;
      for (auto c = argument; *c >= ' ' && *c < 127 && name.size() < 60; ++c)
        name += static_cast<char>(*c);
      return name;
    }
    if constexpr (std::is_same_v<T, void*>)
      return argument == GetCurrentProcess() ? "process" : "handle";
    if constexpr (std::is_same_v<T, LARGE_INTEGER const*>)
      return std::to_string(argument->QuadPart);
    if constexpr (std::is_same_v<Data, SECURITY_ATTRIBUTES>) return text_of(*argument);
    return std::is_const_v<Target> ? "data" : "out";
  }
}

template <class Result>
constexpr std::uintptr_t usual_failure = 0;
template <>
inline constexpr std::uintptr_t usual_failure<DWORD> = WAIT_FAILED;
template <>
inline constexpr std::uintptr_t usual_failure<HRESULT> = static_cast<DWORD>(E_FAIL);

template <class Place>
void fill(Answer& answer, Place place) {
  if constexpr (std::is_same_v<Place, DWORD*>) {
    if (!place || answer.numbers.empty()) return;
    *place = answer.numbers.front();
    answer.numbers.erase(answer.numbers.begin());
  } else if constexpr (std::is_same_v<Place, BYTE*>) {
    if (place) answer.block.copy(reinterpret_cast<char*>(place), answer.block.size());
  }
}

template <class Result, class... Parameters>
Result watched(char const* call, Result(WINAPI* platform)(Parameters...),
               std::type_identity_t<Parameters>... arguments) {
  DWORD const code = GetLastError();
  auto const failure = call == std::string_view("QueueUserAPC") ? 0 : usual_failure<Result>;
  auto answer = Watch::answer_to(call, failure, {text_of_argument(arguments)...});
  if (!answer) {
    SetLastError(code);
    return platform(arguments...);
  }
  (fill(*answer, arguments), ...);
  SetLastError(answer->code);
  if constexpr (std::is_pointer_v<Result>)
    return reinterpret_cast<Result>(answer->result);
  else if constexpr (!std::is_void_v<Result>)
    return static_cast<Result>(answer->result);
}

struct Watched {
  template <class Function, class Body>
  Watched(Call<Function> call, Body const& body) {
    static Body const kept = body;
    Watch::known.push_back(&StandIn<Function, Body>::begin(call.name, kept));
  }
};

}  // namespace detail
}  // namespace velt_test

// At namespace scope: the test program's Watches write these calls down.
#define VELT_WATCH(...) VELT_TIMES_64(VELT_WATCH_NEXT(__VA_ARGS__))
#define VELT_WATCH_NEXT(CALL, ...)                                        \
  static velt_test::detail::Watched const watched_##CALL(                 \
      VELT_CALL(CALL), [](auto platform, auto... arguments) {             \
        return velt_test::detail::watched(#CALL, platform, arguments...); \
      });                                                                 \
  __VA_OPT__(VELT_WATCH_AGAIN VELT_PARENTHESES(__VA_ARGS__))
#define VELT_WATCH_AGAIN() VELT_WATCH_NEXT
// The preprocessor looks at a text again, for the next call, as often as this.
#define VELT_PARENTHESES ()
#define VELT_TIMES_64(...) VELT_TIMES_16(VELT_TIMES_16(VELT_TIMES_16(VELT_TIMES_16(__VA_ARGS__))))
#define VELT_TIMES_16(...) VELT_TIMES_4(VELT_TIMES_4(VELT_TIMES_4(VELT_TIMES_4(__VA_ARGS__))))
#define VELT_TIMES_4(...) VELT_ONCE(VELT_ONCE(VELT_ONCE(VELT_ONCE(__VA_ARGS__))))
#define VELT_ONCE(...) __VA_ARGS__
