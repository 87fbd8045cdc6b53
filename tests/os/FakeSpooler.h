// The spooler's calls, replaced at link time in programs that are built with
// their own copy of Printer.cpp: they go to the real spooler, or to a fake one
// that writes them down and answers as it was told.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <winspool.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

namespace velt_test {

// What a call answers: its result, the last error, the numbers for its places for
// numbers in their order, and the bytes for its block.
struct Answer {
  DWORD result;
  DWORD code = 0;
  std::vector<DWORD> numbers = {};
  std::string block = {};
};

using answers = std::vector<Answer>;

// While it lives, all calls come to it, and only as many as it has answers for.
class FakeSpooler {
public:
  explicit FakeSpooler(answers const& list) : left(list) { current = this; }
  FakeSpooler(FakeSpooler const&) = delete;
  ~FakeSpooler() {
    current = nullptr;
    EXPECT_TRUE(left.empty()) << "of " << calls;
  }

  std::string calls;
  answers left;

  static inline FakeSpooler* current = nullptr;

  template <class... Arguments>
  DWORD call(std::string const& name, Arguments... arguments) {
    numbers.clear();
    block = nullptr;
    std::string list;
    ((list += (list.empty() ? "" : ", ") + text(arguments)), ...);
    calls += name + "(" + list + ")";
    if (left.empty()) return ADD_FAILURE() << "no answer for the last of " << calls, 0;
    Answer const answer = left.front();
    left.erase(left.begin());
    auto const count = std::min(answer.numbers.size(), numbers.size());
    for (std::size_t i = 0; i < count; ++i) *numbers[i] = answer.numbers[i];
    if (block) std::copy(answer.block.begin(), answer.block.end(), block);
    SetLastError(answer.code);
    return answer.result;
  }

private:
  std::string text(DWORD number) { return std::to_string(number); }
  std::string text(DWORD* number) { return numbers.push_back(number), "out"; }
  std::string text(BYTE* place) { return (block = place) ? "block" : "none"; }
  std::string text(wchar_t* name) { return std::string(name, name + wcslen(name)); }
  std::string text(HANDLE) { return "printer"; }
  std::string text(HANDLE*) { return "out"; }
  std::string text(PRINTER_DEFAULTSW* defaults) {
    EXPECT_FALSE(defaults->pDatatype || defaults->pDevMode);
    return "access " + std::to_string(defaults->DesiredAccess);
  }

  // The places that the call under way has.
  std::vector<DWORD*> numbers;
  BYTE* block = nullptr;
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
