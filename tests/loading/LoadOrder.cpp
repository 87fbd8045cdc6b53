// Loads the library, unloads it, and goes on to throw. With the name of a call and
// a number, that call of this kind fails.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <typeinfo>

#include "tests/support/Imports.h"

using velt_test::Watch;

VELT_WATCH(AddVectoredExceptionHandler, CloseHandle, CreateEventW, CreateMutexW,
           DeleteCriticalSection, InitializeCriticalSectionEx, RemoveVectoredExceptionHandler,
           TlsAlloc, TlsFree);

namespace {

char** words;
std::unique_ptr<Watch> watch;

void watch_calls() {
  watch = std::make_unique<Watch>(words[1] ? words[1] : "");
  if (words[1]) watch->passing = std::atoi(words[2]) - 1;
}

// Of an exception that the library throws while it is loaded. Nothing but the
// platform would catch it.
LONG WINAPI end_with_throw(EXCEPTION_POINTERS* pointers) {
  constexpr DWORD typed_throw = 0x20474343;
  if (!watch || pointers->ExceptionRecord->ExceptionCode != typed_throw)
    return EXCEPTION_CONTINUE_SEARCH;
  // Ten words before the header that the record points to.
  auto const header = reinterpret_cast<void**>(pointers->ExceptionRecord->ExceptionInformation[0]);
  std::string_view const type = static_cast<std::type_info*>(header[-10])->name();
  if (type != "16ESystemException") return EXCEPTION_CONTINUE_SEARCH;
  std::_Exit(7);
}

}  // namespace

int main(int, char** arguments) {
  words = arguments;
  AddVectoredExceptionHandler(1, end_with_throw);
  for (int round = 0; round < 3; ++round) {
    HMODULE const library = velt_test::load_velt(watch_calls);
    if (!library) return 5;
    FreeLibrary(library);
    if (GetModuleHandleA("velt.dll")) return 6;
    std::puts(watch->calls.c_str());
    watch.reset();
    try {
      throw round;
    } catch (int) {
    }
  }
}
