// For programs that are built with their own copy of some of the library's
// sources, so that the platform's calls can be replaced at link time: every one
// is written down with its arguments, and can be made to fail.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <cstddef>
#include <cstring>
#include <optional>
#include <string>
#include <type_traits>

#include "tests/support/Expect.h"
#include "tests/support/OpenHandles.h"
#include "velt/base/DoNotInitialize.h"

namespace velt_test {

constexpr int injected_code = 1234;

// The calls made while it lives, and the one that is to fail.
class Watch {
public:
  // `call`: the name of the one to fail; `instead`: in place of its usual answer
  // to failure.
  explicit Watch(std::string const& call = "", std::optional<void*> instead = {})
      : failing(call), answer(instead) {
    current = this;
  }
  ~Watch() { current = nullptr; }

  std::string calls;
  std::string failing;
  std::optional<void*> answer;
  DWORD code = injected_code;

  static inline Watch* current = nullptr;
};

// What the operations move.
inline char buffer[16];

// Unlike that of a process that tests the same at the same time.
inline std::string const name = "velt-calls-" + std::to_string(GetCurrentProcessId());
inline std::wstring const wide_name(name.begin(), name.end());

inline bool is_security_as_made(SECURITY_ATTRIBUTES const& attributes,
                                SECURITY_DESCRIPTOR_CONTROL control) {
  auto const descriptor = static_cast<SECURITY_DESCRIPTOR const*>(attributes.lpSecurityDescriptor);
  return attributes.nLength == 24 && !attributes.bInheritHandle && descriptor->Revision == 1 &&
         descriptor->Control == control && !descriptor->Dacl && !descriptor->Owner;
}

inline std::string text(SECURITY_ATTRIBUTES* attributes) {
  if (!attributes) return "none";
  if (is_security_as_made(*attributes, 0)) return "default access";
  if (is_security_as_made(*attributes, SE_DACL_PRESENT)) return "open access";
  return "unknown security";
}
inline std::string text(char const* text) {
  return !text ? "none" : text == name ? "name" : "unknown name";
}
inline std::string text(wchar_t const* text) {
  return !text ? "none" : text == wide_name ? "wide name" : "unknown name";
}
inline std::string text(char* line) { return text(static_cast<char const*>(line)); }
inline std::string text(wchar_t* line) { return text(static_cast<wchar_t const*>(line)); }
inline std::string text(LARGE_INTEGER number) { return std::to_string(number.QuadPart); }
inline std::string text(LARGE_INTEGER const* number) { return text(*number); }
inline std::string text(void const* data) { return data == buffer ? "buffer" : "unknown data"; }
inline std::string text(void* handle) {
  if (handle == buffer) return "buffer";
  return handle == GetCurrentProcess() ? "process" : handle ? "handle" : "none";
}
inline std::string text(OVERLAPPED* record) { return record ? "record" : "none"; }
inline std::string text(PAPCFUNC routine) { return routine ? "routine" : "none"; }
inline std::string text(unsigned int (*entry)(void*)) { return entry ? "entry" : "none"; }
inline std::string text(PTIMERAPCROUTINE routine) { return routine ? "routine" : "none"; }
template <class Startup>
  requires std::is_same_v<Startup, STARTUPINFOA> || std::is_same_v<Startup, STARTUPINFOW>
std::string text(Startup* startup) {
  Startup plain = {};
  plain.cb = 104;
  return std::memcmp(startup, &plain, sizeof plain) == 0 ? "plain start" : "unknown start";
}
// What is left are places for results.
template <class Result>
std::string text(Result* result) {
  return result ? "out" : "none";
}
template <class Number>
  requires std::is_integral_v<Number>
std::string text(Number number) {
  return std::to_string(number);
}

template <class Answer>
Answer fail(Watch const& watch) {
  SetLastError(watch.code);
  if constexpr (std::is_same_v<Answer, HANDLE>)
    return watch.answer.value_or(nullptr);
  else if constexpr (std::is_same_v<Answer, DWORD>)
    return watch.failing == "QueueUserAPC" ? 0 : WAIT_FAILED;
  else
    return FALSE;
}

template <class Answer, class... Parameters>
Answer watched(char const* call, Answer(WINAPI* real)(Parameters...), Parameters... arguments) {
  Watch* const watch = Watch::current;
  if (!watch) return real(arguments...);
  std::string list;
  ((list += (list.empty() ? "" : ", ") + text(arguments)), ...);
  watch->calls += call + ("(" + list + ")");
  return watch->failing == call ? fail<Answer>(*watch) : real(arguments...);
}

template <class Function>
struct call_of;
template <class Answer, class... Parameters>
struct call_of<Answer(WINAPI*)(Parameters...)> {
  template <auto const& call, auto& real>
  static Answer WINAPI replacement(Parameters... arguments) {
    return watched<Answer, Parameters...>(call, real, arguments...);
  }
};

}  // namespace velt_test

// One for each --wrap option in CMakeLists.txt.
#define VELT_WATCH(CALL)                                                            \
  extern "C" decltype(&CALL) __real___imp_##CALL;                                   \
  static constexpr char name_of_##CALL[] = #CALL;                                   \
  extern "C" decltype(&CALL) __wrap___imp_##CALL;                                   \
  decltype(&CALL) __wrap___imp_##CALL =                                             \
      velt_test::call_of<decltype(&CALL)>::replacement<name_of_##CALL, __real___imp_##CALL>;

namespace velt_test {

inline std::string call_name(std::string const& call) { return call.substr(0, call.find('(')); }

inline void* const none = INVALID_HANDLE_VALUE;

// Operations that make a new object out of nothing.
struct Construction {
  char const* call;
  void (*run)();
};

// Operations of a class: what they are run on is made by `subject`.
template <class Object>
struct Operation {
  char const* call;
  void (*run)(Object&);
};

// Each runs the operation on an object of its own and expects the one call.
template <class Object, std::size_t count>
void expect_calls(Operation<Object> const (&operations)[count], Object (*subject)()) {
  for (auto const& [call, run] : operations) {
    Object object(subject());
    Watch watch;
    run(object);
    EXPECT_EQ(watch.calls, call);
  }
}

// What the field holds after a call failed. A call that makes a handle answers
// failure by the same value.
enum class after_failure { null, minus_one, unchanged };

// Each throws the platform's code when its call fails, leaves the field as said
// and loses no handle.
template <class Object, std::size_t count>
void expect_failures(Operation<Object> const (&operations)[count], Object (*subject)(),
                     after_failure field) {
  for (auto const& [call, run] : operations) {
    SCOPED_TRACE(call);
    long const before = open_handles();
    {
      Object object(subject());
      void* const expected = field == after_failure::null        ? nullptr
                             : field == after_failure::minus_one ? none
                                                                 : static_cast<void*>(object);
      {
        Watch watch(call_name(call), expected);
        EXPECT_EQ(system_code([&] { run(object); }), injected_code);
        EXPECT_EQ(watch.calls, call);
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

}  // namespace velt_test
