// Loads the library, unloads it, and goes on to throw. With the name of a call and
// a number, that call of this kind fails.
#include <windows.h>
#include <winternl.h>

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

struct notification {
  ULONG flags;
  UNICODE_STRING const *path, *name;
};

// A module that was loaded has its imports by now, and has not run.
void CALLBACK module_changes(ULONG reason, notification const* data, void*) {
  constexpr ULONG loaded = 1;
  std::wstring_view const name(data->name->Buffer, data->name->Length / sizeof(wchar_t));
  if (reason != loaded || name != L"velt.dll") return;
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
  using register_function = NTSTATUS NTAPI(ULONG, decltype(&module_changes), void*, void**);
  auto const notify_of_modules = reinterpret_cast<register_function*>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleA("ntdll"), "LdrRegisterDllNotification")));
  void* cookie;
  if (notify_of_modules(0, module_changes, nullptr, &cookie)) return 4;
  for (int round = 0; round < 3; ++round) {
    HMODULE const library = LoadLibraryA("velt.dll");
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
