// The spooler's calls, replaced at link time in programs that are built with
// their own copy of Printer.cpp: they go to the real spooler, or to a fake one
// that writes them down and answers as it was told.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <winspool.h>

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <string>
#include <vector>

namespace velt_test {

// What a call answers: its result, the last error, the numbers that go to its
// places for numbers in their order, and the bytes that go to its block.
struct Answer {
  DWORD result;
  DWORD code = 0;
  std::vector<DWORD> numbers = {};
  std::string block = {};
};

// While it lives, all calls come to it, and only as many as it has answers for.
class FakeSpooler {
public:
  FakeSpooler(std::initializer_list<Answer> its_answers) : answers(its_answers) { current = this; }
  FakeSpooler(FakeSpooler const&) = delete;
  ~FakeSpooler() {
    current = nullptr;
    EXPECT_TRUE(answers.empty()) << "of " << calls;
  }

  std::string calls;
  std::vector<Answer> answers;

  static inline FakeSpooler* current = nullptr;

  template <class... Arguments>
  DWORD call(char const* name, Arguments... arguments) {
    places made;
    (note(made, arguments), ...);
    calls += name + ("(" + made.text + ")");
    if (answers.empty()) {
      ADD_FAILURE() << "no answer for the last of " << calls;
      return 0;
    }
    Answer const answer = answers.front();
    answers.erase(answers.begin());
    auto const count = std::min(answer.numbers.size(), made.numbers.size());
    for (std::size_t i = 0; i < count; ++i) *made.numbers[i] = answer.numbers[i];
    if (made.block) std::copy(answer.block.begin(), answer.block.end(), made.block);
    SetLastError(answer.code);
    return answer.result;
  }

private:
  struct places {
    std::string text;
    std::vector<DWORD*> numbers;
    BYTE* block = nullptr;
  };

  static void add(places& made, std::string const& text) {
    made.text += (made.text.empty() ? "" : ", ") + text;
  }
  static void note(places& made, DWORD number) { add(made, std::to_string(number)); }
  static void note(places& made, DWORD* number) {
    made.numbers.push_back(number);
    add(made, "out");
  }
  static void note(places& made, BYTE* block) {
    made.block = block;
    add(made, block ? "block" : "none");
  }
  static void note(places& made, wchar_t* name) {
    add(made, name ? std::string(name, name + wcslen(name)) : "none");
  }
  static void note(places& made, HANDLE) { add(made, "printer"); }
  static void note(places& made, HANDLE*) { add(made, "out"); }
  static void note(places& made, PRINTER_DEFAULTSW* defaults) {
    bool const is_bare = !defaults->pDatatype && !defaults->pDevMode;
    add(made, (is_bare ? "access " : "more than access ") + std::to_string(defaults->DesiredAccess));
  }

};

template <class Function>
struct spooler_call;
template <class Result, class... Parameters>
struct spooler_call<Result(WINAPI*)(Parameters...)> {
  template <auto const& name, auto& real>
  static Result WINAPI replacement(Parameters... arguments) {
    auto const fake = FakeSpooler::current;
    return fake ? static_cast<Result>(fake->call(name, arguments...)) : real(arguments...);
  }
};

}  // namespace velt_test

// One for each --wrap option in CMakeLists.txt. The spooler's header does not mark
// its calls as imported, so programs come to them by a jump and not by a pointer.
#define VELT_SPOOLER_CALL(CALL)                                                             \
  extern "C" decltype(CALL) __real_##CALL;                                                  \
  static constexpr char name_of_##CALL[] = #CALL;                                           \
  extern "C" decltype(&CALL) replaced_##CALL;                                               \
  decltype(&CALL) replaced_##CALL =                                                         \
      velt_test::spooler_call<decltype(&CALL)>::replacement<name_of_##CALL, __real_##CALL>; \
  asm(".text\n.globl __wrap_" #CALL "\n__wrap_" #CALL ": jmp *replaced_" #CALL "(%rip)");
