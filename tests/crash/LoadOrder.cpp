// Loads the library and unloads it, and writes down what it asks of the platform
// meanwhile. With the name of a call and a number, that call of this kind fails;
// with GetVersionExW and 51, the platform says that it is of version 5.1.
#include <fcntl.h>
#include <io.h>
#include <windows.h>
#include <winternl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

namespace {

std::string failing;
int calls_until_failure = 0;

bool fails(char const* call) {
  if (failing != call || --calls_until_failure != 0) return false;
  SetLastError(1234);
  return true;
}

void note(char const* call) { std::printf("%s\n", call); }

// Objects have numbers in the order in which they were made. Those of the run
// time's own are not looked at.
std::vector<void const*> objects;

void* made(char const* call, void* object) {
  objects.push_back(object);
  std::printf("%s: %zu\n", call, objects.size());
  return object;
}
void note_gone(char const* call, void const* object) {
  auto const found = std::find(objects.rbegin(), objects.rend(), object);
  if (found != objects.rend()) std::printf("%s: %td\n", call, objects.rend() - found);
}

template <class Function>
Function* as(FARPROC entry) {
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(entry));
}
template <class Function>
FARPROC entry_of(Function function) {
  return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(+function));
}

BOOL WINAPI ask_version(OSVERSIONINFOW* result) {
  if (failing != "GetVersionExW") return GetVersionExW(result);
  result->dwPlatformId = VER_PLATFORM_WIN32_NT;
  result->dwMajorVersion = calls_until_failure / 10;
  result->dwMinorVersion = calls_until_failure % 10;
  return result->dwOSVersionInfoSize == 276;
}

FARPROC WINAPI find_entry(HMODULE module, char const* name) {
  if (reinterpret_cast<UINT_PTR>(name) >> 16 == 0) return GetProcAddress(module, name);
  if (std::strcmp(name, "RtlDllShutdownInProgress")) note(name);
  if (!std::strcmp(name, "HeapSetInformation"))
    return entry_of([](HANDLE heap, HEAP_INFORMATION_CLASS kind, void* value, SIZE_T size) {
      std::printf("HeapSetInformation %d %lu\n", kind, *static_cast<ULONG*>(value));
      return HeapSetInformation(heap, kind, value, size);
    });
  if (!std::strcmp(name, "RemoveVectoredExceptionHandler"))
    return entry_of([](void* handler) {
      note("RemoveVectoredExceptionHandler");
      return RemoveVectoredExceptionHandler(handler);
    });
  return GetProcAddress(module, name);
}

struct Replacement {
  char const* name;
  FARPROC entry;
} const replacements[] = {
    {"CloseHandle", entry_of([](HANDLE handle) {
       note_gone("closed", handle);
       return CloseHandle(handle);
     })},
    {"CreateEventW",
     entry_of([](SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set, wchar_t const* name) {
       return fails("CreateEventW") ? nullptr
                                    : made("event", CreateEventW(security, manual, set, name));
     })},
    {"CreateMutexW", entry_of([](SECURITY_ATTRIBUTES* security, BOOL owned, wchar_t const* name) {
       return fails("CreateMutexW") ? nullptr : made("mutex", CreateMutexW(security, owned, name));
     })},
    {"DeleteCriticalSection", entry_of([](CRITICAL_SECTION* section) {
       note_gone("deleted", section);
       DeleteCriticalSection(section);
     })},
    {"GetProcAddress", entry_of(find_entry)},
    {"GetProcessHeap", entry_of([] {
       note("GetProcessHeap");
       return GetProcessHeap();
     })},
    {"GetVersionExW", entry_of(ask_version)},
    {"InitializeCriticalSectionEx", entry_of([](CRITICAL_SECTION* section, DWORD spins, DWORD flags) {
       made("section", section);
       return InitializeCriticalSectionEx(section, spins, flags);
     })},
    {"QueryPerformanceFrequency", entry_of([](LARGE_INTEGER* result) {
       note("QueryPerformanceFrequency");
       return QueryPerformanceFrequency(result);
     })},
    {"TlsAlloc", entry_of([] {
       if (fails("TlsAlloc")) return TLS_OUT_OF_INDEXES;
       note("TlsAlloc");
       return TlsAlloc();
     })},
    {"TlsFree", entry_of([](DWORD slot) {
       note("TlsFree");
       return TlsFree(slot);
     })},
};

void replace(char const* name, ULONG_PTR& slot) {
  for (auto const& [call, entry] : replacements) {
    if (std::strcmp(call, name)) continue;
    DWORD protection;
    VirtualProtect(&slot, sizeof slot, PAGE_READWRITE, &protection);
    slot = reinterpret_cast<ULONG_PTR>(entry);
    VirtualProtect(&slot, sizeof slot, protection, &protection);
  }
}

void replace_imports(char* base) {
  auto const headers =
      reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
  auto const& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  auto module = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
  for (; module->FirstThunk; ++module) {
    auto name = reinterpret_cast<IMAGE_THUNK_DATA*>(base + module->OriginalFirstThunk);
    auto slot = reinterpret_cast<IMAGE_THUNK_DATA*>(base + module->FirstThunk);
    for (; name->u1.AddressOfData; ++name, ++slot)
      if (!IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal))
        replace(reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + name->u1.AddressOfData)->Name,
                slot->u1.Function);
  }
}

struct notification {
  ULONG flags;
  UNICODE_STRING const *path, *name;
  void* base;
  ULONG size;
};

// A module that was loaded has its imports by now, and has not run.
void CALLBACK module_changes(ULONG reason, notification const* data, void*) {
  constexpr ULONG loaded = 1;
  std::wstring_view const name(data->name->Buffer, data->name->Length / sizeof(wchar_t));
  if (reason == loaded && name == L"velt.dll") replace_imports(static_cast<char*>(data->base));
}

// Of an exception that the library throws while it is loaded. Nothing but the
// platform would catch it.
LONG WINAPI note_throw(EXCEPTION_POINTERS* pointers) {
  constexpr DWORD typed_throw = 0x20474343;
  if (pointers->ExceptionRecord->ExceptionCode != typed_throw) return EXCEPTION_CONTINUE_SEARCH;
  // Ten words before the header that the record points to.
  auto const header = reinterpret_cast<void**>(pointers->ExceptionRecord->ExceptionInformation[0]);
  std::string_view const type = static_cast<std::type_info*>(header[-10])->name();
  if (type != "16ESystemException") return EXCEPTION_CONTINUE_SEARCH;
  note("throws");
  TerminateProcess(GetCurrentProcess(), 7);
  return EXCEPTION_CONTINUE_SEARCH;
}

}  // namespace

int main(int count, char** arguments) {
  _setmode(_fileno(stdout), _O_BINARY);
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  if (count == 3) {
    failing = arguments[1];
    calls_until_failure = std::atoi(arguments[2]);
  }
  AddVectoredExceptionHandler(1, note_throw);
  using register_function = NTSTATUS NTAPI(ULONG, decltype(&module_changes), void*, void**);
  auto const notify_of_modules = as<register_function>(
      GetProcAddress(GetModuleHandleA("ntdll"), "LdrRegisterDllNotification"));
  void* cookie;
  if (!notify_of_modules || notify_of_modules(0, module_changes, nullptr, &cookie)) return 4;
  HMODULE const library = LoadLibraryA("velt.dll");
  if (!library) return 5;
  note("-");
  FreeLibrary(library);
  if (GetModuleHandleA("velt.dll")) return 6;
}
