#include "tests/diagnostics/Fakes.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <thread>

#include "velt/diagnostics/Settings.h"
#include "velt/faults/StructuredException.h"
#include "velt/faults/TranslatorInternal.h"
#include "velt/locks/Mutex.h"
#include "velt/symbols/Symbols.h"
#include "velt/symbols/SymbolsInternal.h"

bool SaveMiniDumpOnStructuredException;
bool SaveMiniDumpOnCppException;
bool UseVEH;
bool ExtendDebugInformationFromException;
unsigned long MiniDumpType;
char const* const MiniDumpFileFormat = velt_test::dump_format;

namespace velt_test {

namespace {

void called(char const* name) {
  auto& calls = fakes().calls;
  calls.append(calls.empty() ? "" : " ").append(name);
}

// Shows by its calls when it is held.
struct ListedMutex : TMutex {
  using TMutex::Lock;
  void Lock() override {
    called("symbols");
    TMutex::Lock();
  }
  void Unlock() override {
    called("~symbols");
    TMutex::Unlock();
  }
};

BOOL WINAPI write_dump(HANDLE process, DWORD id, HANDLE file, MINIDUMP_TYPE type,
                       MINIDUMP_EXCEPTION_INFORMATION const* exception,
                       MINIDUMP_USER_STREAM_INFORMATION const* streams,
                       MINIDUMP_CALLBACK_INFORMATION const* callback) {
  bool const of_this_process = process == GetCurrentProcess() && id == GetCurrentProcessId();
  called(of_this_process && !streams && !callback ? "write" : "a wrong dump");
  auto& seen = fakes();
  seen.written_file = file;
  seen.written_type = type;
  seen.with_exception = exception;
  if (exception) seen.exception = *exception;
  DWORD written;
  WriteFile(file, "dump", 4, &written, nullptr);
  return seen.writer_succeeds;
}

// Null for another name.
void (*fake_entry(std::string_view name))() {
  auto const as = [](auto function) { return reinterpret_cast<void (*)()>(+function); };
  static std::map<std::string_view, void (*)()> const entries = {
      {"LdrLockLoaderLock", as([](ULONG flags, ULONG* state, ULONG_PTR* cookie) -> LONG {
         called(flags == 2 ? "loader" : "waiting for the loader");
         *state = fakes().loader_state;
         *cookie = 77;
         return fakes().loader_status;
       })},
      {"LdrUnlockLoaderLock", as([](ULONG flags, ULONG_PTR cookie) -> LONG {
         called(flags == 0 && cookie == 77 ? "~loader" : "a wrong end of the loader's lock");
         return 0;
       })},
      {"RtlAcquirePebLock", as([] { called("waiting for the PEB"); })},
      {"RtlTryAcquirePebLock", as([]() -> BOOLEAN {
         called("PEB");
         return fakes().peb_is_free;
       })},
      {"RtlReleasePebLock", as([] { called("~PEB"); })},
      {"RtlLockHeap", as([](HANDLE heap) -> BOOLEAN {
         called(heap == heap_header ? "heap" : "another heap");
         return fakes().heap_locks;
       })},
      {"RtlUnlockHeap", as([](HANDLE) -> BOOLEAN {
         called("~heap");
         return TRUE;
       })},
  };
  auto const found = entries.find(name);
  return found == entries.end() ? nullptr : found->second;
}

void restore_settings() {
  SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = UseVEH = true;
  ExtendDebugInformationFromException = false;
  MiniDumpType = 0;
  std::strcpy(dump_format, "Dumps\\%s_%s_%04hd_%02hd_%02hd_%02hd_%02hd_%02hd_%03hd.dmp");
}

}  // namespace

char dump_format[100];
std::byte heap_header[1024];

Fakes& fakes() {
  static Fakes instance;
  return instance;
}

Fresh::Fresh() {
  fakes() = Fakes();
  InitializeCriticalSection(heap_section());
  restore_settings();
  std::filesystem::current_path(folder.path());
}

Fresh::~Fresh() {
  restore_settings();
  std::filesystem::current_path(before);
}

CRITICAL_SECTION* heap_section() {
  static auto const section = [] {
    void* page = nullptr;
    for (std::uintptr_t at = 0x10000000; !page; at += 0x100000)
      page = VirtualAlloc(reinterpret_cast<void*>(at), 0x1000, MEM_RESERVE | MEM_COMMIT,
                          PAGE_READWRITE);
    return static_cast<CRITICAL_SECTION*>(page);
  }();
  return section;
}

void let_another_thread_take_heap_section() {
  std::thread([] { EnterCriticalSection(heap_section()); }).join();
}

}  // namespace velt_test

using velt_test::called;
using velt_test::fakes;

bool SymInitialize() {
  if (!fakes().engine_is_there) return false;
  ++fakes().holds;
  return true;
}
void SymCleanup() { --fakes().holds; }

// A null context walks the caller's stack for real.
unsigned int StackWalk(unsigned __int64* frames, _CONTEXT* context, void* thread, unsigned int skip,
                       unsigned int max) {
  auto& fake = fakes();
  fake.walked = context;
  fake.walked_thread = thread;
  fake.skipped = skip;
  if (!context) {
    constexpr unsigned int this_function = 1;
    return RtlCaptureStackBackTrace(skip + this_function, max, reinterpret_cast<void**>(frames),
                                    nullptr);
  }
  auto const count = std::min<std::size_t>(fake.frames.size(), max);
  std::copy_n(fake.frames.begin(), count, frames);
  return static_cast<unsigned int>(count);
}

EStructuredException::EStructuredException() = default;

void VeltDebugSetup(bool extended) { ExtendDebugInformationFromException = extended; }

std::string SymGetModuleFromAddress(unsigned __int64 address) { return fakes().modules[address]; }

unsigned __int64 SymGetActualErrorAddress(unsigned __int64 const* frames, unsigned int count) {
  auto const end = frames + count;
  auto const found =
      std::find_if(frames, end, [](auto frame) { return fakes().modules.contains(frame); });
  return found == end ? 0 : *found;
}

std::string SymGetFullNameFromAddress(unsigned __int64 address) {
  return "name of " + std::to_string(address);
}

std::string SymGetStackTrace(unsigned __int64 const* frames, unsigned int count) {
  std::string text = "stack of";
  for (auto frame = frames; frame != frames + count; ++frame) text += " " + std::to_string(*frame);
  return text;
}

namespace velt::detail {

TMutex& symbol_lock() {
  static velt_test::ListedMutex mutex;
  return mutex;
}

bool lock_symbols() {
  symbol_lock().Lock();
  return true;
}

std::array<void*, 2> heaps_of_run_times() noexcept { return {}; }

void* dump_writer() { return reinterpret_cast<void*>(velt_test::write_dump); }

bool throws_are_watched() noexcept { return fakes().throws_are_watched; }

}  // namespace velt::detail

// Replaced at link time. The first two are called at load, when no object of
// this file may be in use yet that needs making.
extern "C" {
extern decltype(&GetProcAddress) __real___imp_GetProcAddress;
extern decltype(&CreateFileA) __real___imp_CreateFileA;

constinit decltype(&GetProcessHeap) __wrap___imp_GetProcessHeap = []() -> HANDLE {
  using namespace velt_test;
  auto const section = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(heap_section()));
  heap_section()->OwningThread = ULongToHandle(GetCurrentThreadId());
  std::memcpy(heap_header + 540, &section, sizeof section);
  return heap_header;
};

constinit decltype(&GetProcAddress) __wrap___imp_GetProcAddress = [](HMODULE module,
                                                                     char const* name) {
  auto const fake = module == GetModuleHandleW(L"ntdll") ? velt_test::fake_entry(name) : nullptr;
  return fake ? reinterpret_cast<FARPROC>(fake) : __real___imp_GetProcAddress(module, name);
};

// The 5th of March 2024, 9:07:03.042.
decltype(&GetLocalTime) __wrap___imp_GetLocalTime = [](SYSTEMTIME* now) {
  *now = {2024, 3, 2, 5, 9, 7, 3, 42};
};

decltype(&CreateFileA) __wrap___imp_CreateFileA = [](auto... arguments) {
  return fakes().made_file = __real___imp_CreateFileA(arguments...);
};
}
