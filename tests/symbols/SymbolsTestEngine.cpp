// The library's part of naming and walking, with an engine of the test's own:
// the loader's calls that lead to dbghelp.dll lead here.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/OpenHandles.h"
#include "velt/diagnostics/Settings.h"
#include "velt/locks/Mutex.h"
#include "velt/symbols/SymbolEngineInternal.h"
#include "velt/symbols/SymbolsInternal.h"

using velt::detail::engine_isolation;
using velt::detail::StackWalkStep;
using velt::detail::SymGetQualifiedNameFromAddress;
using velt_test::open_handles;

extern "C" {
extern decltype(&FreeLibrary) __real___imp_FreeLibrary;
extern decltype(&GetProcAddress) __real___imp_GetProcAddress;
extern decltype(&LoadLibraryA) __real___imp_LoadLibraryA;
extern decltype(&WaitForSingleObjectEx) __real___imp_WaitForSingleObjectEx;
}

namespace {

using address_list = std::vector<unsigned __int64>;

struct Module {
  std::string name;
  DWORD64 base;
  DWORD size;
  bool is_new = false;  // unknown until the refresh
};
struct Symbol {
  std::string name;
  DWORD64 displacement = 0;
};
struct Line {
  std::string file;
  DWORD number;
};

// What the engine knows, and what it was asked.
struct TestEngine {
  bool missing = false;
  std::string missing_entry;

  std::vector<Module> modules;
  DWORD module_error = ERROR_MOD_NOT_FOUND;
  std::map<DWORD64, Symbol> symbols;
  std::map<DWORD64, Line> lines;
  std::vector<DWORD64> stack;
  std::size_t broken_step = 99;
  DWORD basic_type = 0;
  std::wstring type_name;

  std::string calls;        // all but the walk's and the names'
  std::set<DWORD64> named;  // addresses whose symbol was asked for
  int questions = 0;        // after modules, symbols and lines
  std::size_t steps = 0;
  std::vector<DWORD> machines;

  static inline TestEngine* current = nullptr;
};

TestEngine& engine() { return *TestEngine::current; }

char module_mark;
HMODULE const test_module = reinterpret_cast<HMODULE>(&module_mark);

BOOL module_info(HANDLE, DWORD64 address, IMAGEHLP_MODULE64* record) {
  ++engine().questions;
  EXPECT_EQ(record->SizeOfStruct, 1672u);
  for (auto const& module : engine().modules)
    if (!module.is_new && address >= module.base && address - module.base < module.size) {
      record->BaseOfImage = module.base;
      record->ImageSize = module.size;
      strcpy_s(record->ModuleName, sizeof record->ModuleName, module.name.c_str());
      return TRUE;
    }
  SetLastError(engine().module_error);
  return FALSE;
}

BOOL symbol(HANDLE, DWORD64 address, DWORD64* displacement, IMAGEHLP_SYMBOL64* record) {
  engine().named.insert(address);
  ++engine().questions;
  EXPECT_TRUE(record->SizeOfStruct == 32 && record->MaxNameLength == 1960);
  auto const found = engine().symbols.find(address);
  if (found == engine().symbols.end()) return FALSE;
  auto const& name = found->second.name;
  std::memcpy(record->Name, name.data(), std::min<std::size_t>(name.size(), 1960));
  *displacement = found->second.displacement;
  return TRUE;
}

BOOL line(HANDLE, DWORD64 address, DWORD*, IMAGEHLP_LINE64* record) {
  ++engine().questions;
  EXPECT_EQ(record->SizeOfStruct, 40u);
  auto const found = engine().lines.find(address);
  if (found == engine().lines.end()) return FALSE;
  record->FileName = found->second.file.data();
  record->LineNumber = found->second.number;
  return TRUE;
}

BOOL walk(DWORD machine, HANDLE, HANDLE, STACKFRAME64* frame, void* context, void*, void*, void*,
          void*) {
  auto& all = engine();
  all.machines.push_back(machine);
  EXPECT_EQ(!context, machine == 0x14C);
  if (all.steps == all.broken_step) throw std::runtime_error("broken stack");
  if (all.steps == all.stack.size()) return FALSE;
  frame->AddrPC.Offset = all.stack[all.steps++];
  return TRUE;
}

BOOL type_info(HANDLE, DWORD64, ULONG, IMAGEHLP_SYMBOL_TYPE_INFO what, void* answer) {
  auto const& all = engine();
  if (what == TI_GET_BASETYPE && all.basic_type != 0) {
    *static_cast<DWORD*>(answer) = all.basic_type;
    return TRUE;
  }
  if (what != TI_GET_SYMNAME || all.type_name.empty()) return FALSE;
  auto const size = (all.type_name.size() + 1) * sizeof(wchar_t);
  *static_cast<void**>(answer) = std::memcpy(LocalAlloc(LMEM_FIXED, size), all.type_name.c_str(), size);
  return TRUE;
}

void never_called() { ADD_FAILURE(); }

template <class Function>
void* as_entry(Function function) {
  return reinterpret_cast<void*>(+function);
}

struct {
  char const* name;
  void* entry;
  bool required = true;
} const entries[] = {
    {"SymInitialize", as_entry([](HANDLE process, char const* path, BOOL invade) -> BOOL {
       bool const right = process == GetCurrentProcess() && !path && invade;
       engine().calls += right ? "initialize " : "wrong ";
       return FALSE;  // ignored
     })},
    {"SymCleanup", as_entry([](HANDLE) -> BOOL {
       engine().calls += "cleanup ";
       return TRUE;
     })},
    {"SymGetLineFromAddr64", as_entry(line)},
    {"SymGetModuleInfo64", as_entry(module_info)},
    {"SymGetSymFromAddr64", as_entry(symbol)},
    {"SymSetOptions", as_entry([](DWORD options) {
       engine().calls += "options " + std::to_string(options) + " ";
       return options;
     })},
    {"SymGetTypeInfo", as_entry(type_info)},
    {"SymSetContext", as_entry(never_called)},
    {"SymEnumSymbols", as_entry(never_called)},
    {"SymFromAddr", as_entry([](HANDLE, DWORD64, DWORD64*, SYMBOL_INFO*) -> BOOL {
       return FALSE;
     })},
    {"StackWalk64", as_entry(walk)},
    {"MiniDumpWriteDump", as_entry(never_called)},
    {"SymRefreshModuleList", as_entry([](HANDLE) -> BOOL {
       engine().calls += "refresh ";
       for (auto& module : engine().modules) module.is_new = false;
       return TRUE;
     }),
     false},
    {"SymLoadModuleExW",
     as_entry([](HANDLE, HANDLE file, wchar_t const* path, wchar_t const* name, DWORD64 base,
                 DWORD size, MODLOAD_DATA* data, DWORD flags) {
       EXPECT_TRUE(!file && !name && size == 0 && !data && flags == 0);
       engine().calls += "load module ";
       engine().modules.push_back({std::filesystem::path(path).stem().string(), base, 0x1000});
       return base;
     }),
     false},
    {"SymUnloadModule64", as_entry([](HANDLE, DWORD64) -> BOOL { return TRUE; }), false},
    {"SymFunctionTableAccess64", as_entry(never_called), false},
    {"SymGetModuleBase64", as_entry(never_called), false},
};

// The waits of this thread; those with a limit end at once if they are to.
thread_local int waits = 0;
thread_local std::vector<DWORD> limits;
bool time_runs_out = false;

// The engine is missing at first; a test that wants it takes a hold.
struct SymbolsByTestEngine : testing::Test {
  SymbolsByTestEngine() { TestEngine::current = &test_engine; }
  ~SymbolsByTestEngine() override { TestEngine::current = nullptr; }

  TestEngine test_engine;
  std::string const settings = SkipModulesForError;
};

struct NamesByTestEngine : SymbolsByTestEngine {
  NamesByTestEngine() {
    test_engine.modules = {{"app", 0x10000, 0x1000}, {"Plugin", 0x20000, 0x1000}};
    EXPECT_TRUE(SymInitialize());
  }
  ~NamesByTestEngine() override {
    SymCleanup();
    SkipModulesForError = settings;
  }
};

std::string trace(address_list const& frames) {
  return SymGetStackTrace(frames.data(), static_cast<unsigned>(frames.size()));
}

unsigned __int64 error_address(address_list const& frames) {
  return SymGetActualErrorAddress(frames.data(), static_cast<unsigned>(frames.size()));
}

address_list walked(unsigned skip, unsigned max) {
  address_list frames(max);
  frames.resize(StackWalk(frames.data(), nullptr, GetCurrentThread(), skip, max));
  return frames;
}

std::string const started = "load options 22 initialize ";
std::string const ended = "cleanup free ";

}  // namespace

extern "C" {
decltype(&FreeLibrary) __wrap___imp_FreeLibrary = [](HMODULE module) {
  if (module != test_module) return __real___imp_FreeLibrary(module);
  engine().calls += "free ";
  return TRUE;
};
decltype(&GetProcAddress) __wrap___imp_GetProcAddress = [](HMODULE module,
                                                           char const* name) -> FARPROC {
  if (module != test_module) return __real___imp_GetProcAddress(module, name);
  if (name == engine().missing_entry) return nullptr;
  for (auto const& each : entries)
    if (std::strcmp(each.name, name) == 0) return reinterpret_cast<FARPROC>(each.entry);
  ADD_FAILURE() << "unknown entry " << name;
  return nullptr;
};
decltype(&LoadLibraryA) __wrap___imp_LoadLibraryA = [](char const* name) {
  if (!TestEngine::current || std::strcmp(name, "dbghelp.dll") != 0)
    return __real___imp_LoadLibraryA(name);
  engine().calls += "load ";
  return engine().missing ? nullptr : test_module;
};
decltype(&WaitForSingleObjectEx) __wrap___imp_WaitForSingleObjectEx =
    [](HANDLE handle, DWORD time, BOOL alertable) -> DWORD {
  ++waits;
  if (time != INFINITE) {
    limits.push_back(time);
    if (time_runs_out) return WAIT_TIMEOUT;
  }
  return __real___imp_WaitForSingleObjectEx(handle, time, alertable);
};
}

TEST_F(SymbolsByTestEngine, FirstHoldLoadsAndLastUnloads) {
  auto const handles = open_handles();
  EXPECT_TRUE(SymInitialize());
  EXPECT_TRUE(SymInitialize());
  EXPECT_EQ(test_engine.calls, started);
  SymCleanup();
  EXPECT_EQ(test_engine.calls, started);
  SymCleanup();
  EXPECT_EQ(test_engine.calls, started + ended);
  EXPECT_EQ(open_handles(), handles);
}

TEST_F(SymbolsByTestEngine, MissingEngineGivesNothingAndIsTriedAgain) {
  test_engine.missing = true;
  EXPECT_FALSE(SymInitialize());
  EXPECT_EQ(walked(0, 4), address_list());
  EXPECT_EQ(GetMyDebugStack(), "");
  EXPECT_EQ(trace({0x10001}), "");
  EXPECT_EQ(error_address({7, 8}), 7u);
  EXPECT_EQ(error_address({}), 0u);
  EXPECT_FALSE(EnsureModuleSymbolsLoaded(0x10001));
  EXPECT_EQ(SymGetModuleFromAddress(0x10001), "");
  EXPECT_EQ(SymGetSourceFromAddress(0x10001), "");
  EXPECT_EQ(SymGetNameFromAddress(0x10001), "0x10001");
  EXPECT_EQ(SymGetFullNameFromAddress(0x10001), "!0x10001");
  EXPECT_FALSE(velt::detail::dump_writer());

  test_engine.missing = false;
  EXPECT_TRUE(SymInitialize());
  EXPECT_EQ(velt::detail::dump_writer(), reinterpret_cast<void*>(never_called));
  SymCleanup();
}

TEST_F(SymbolsByTestEngine, EngineIsGivenUpWithoutARequiredEntry) {
  for (auto const& [name, entry, required] : entries) {
    SCOPED_TRACE(name);
    test_engine.calls.clear();
    test_engine.missing_entry = name;
    EXPECT_EQ(SymInitialize(), !required);
    if (!required) SymCleanup();
    EXPECT_EQ(test_engine.calls, required ? "load free " : started + ended);
  }
}

TEST_F(NamesByTestEngine, FormsOfNames) {
  test_engine.symbols = {{0x10010, {"run"}},
                         {0x10020, {"run", 0x1F}},
                         {0x10030, {"stop", 2}},
                         {0x90010, {"stray", 0x123456789A}}};
  test_engine.lines = {{0x10020, {"C:\\src\\main loop.cpp", 12}}, {0x20030, {"unix/path/x", 7}}};
  struct {
    unsigned __int64 address;
    char const *module, *source, *name, *full_name;
  } const rows[] = {
      {0x10010, "app", "", "run", "app!run"},
      {0x10020, "app", "main loop.cpp#12", "run+1f", "app!run+1f[main loop.cpp#12]"},
      {0x10030, "app", "", "stop+2", "app!stop+2"},
      {0x20000, "Plugin", "", "0x20000", "Plugin!"},
      {0x20030, "Plugin", "x#7", "0x20030", "Plugin!+30[x#7]"},
      {0x123480000001, "", "", "0x80000001", "!0x80000001"},
      // Not in a module; asked for the second time, this no longer matters.
      {0x90010, "", "", "stray+123456789a", "!stray+123456789a"},
  };
  for (auto const& row : rows) {
    EXPECT_EQ(SymGetModuleFromAddress(row.address), row.module);
    EXPECT_EQ(SymGetSourceFromAddress(row.address), row.source);
    EXPECT_EQ(SymGetNameFromAddress(row.address), row.name);
    EXPECT_EQ(SymGetFullNameFromAddress(row.address), row.full_name);
  }
}

TEST_F(NamesByTestEngine, LongNamesAreShortenedInFrontOfASourceOrCut) {
  auto const left = std::string(36, 'l'), right = std::string(40, 'r');
  test_engine.symbols = {{0x10001, {left + right}},
                         {0x10002, {left + "-" + right}},
                         {0x10003, {left + "-" + right}},
                         {0x10004, {std::string(1960, 'n'), 5}}};
  test_engine.lines = {{0x10001, {"f.cpp", 1}},
                       {0x10002, {"f.cpp", 2}},
                       {0x10004, {"C:\\" + std::string(300, 'd') + "\\f.cpp", 1}},
                       {0x10005, {std::string(255, 'b') + ".cpp", 1}}};
  EXPECT_EQ(SymGetFullNameFromAddress(0x10001), "app!" + left + right + "[f.cpp#1]");
  EXPECT_EQ(SymGetFullNameFromAddress(0x10002), "app!" + left + ".." + right + "[f.cpp#2]");
  EXPECT_EQ(SymGetFullNameFromAddress(0x10003), "app!" + left + "-" + right);
  EXPECT_EQ(SymGetQualifiedNameFromAddress(0x10002), "app!" + left + "-" + right);
  EXPECT_EQ(SymGetQualifiedNameFromAddress(0x10004), "app!" + std::string(1023, 'n') + "+5");
  EXPECT_EQ(SymGetSourceFromAddress(0x10004), "f.cpp#1");
  EXPECT_EQ(SymGetSourceFromAddress(0x10005), std::string(255, 'b') + ".cpp");
}

TEST_F(NamesByTestEngine, ModuleIsLookedUpOnce) {
  // The eighth byte behind the last one is the module's first.
  for (auto const address : {0x10800, 0x10000, 0x10FFF, 0xFFF9})
    EXPECT_TRUE(EnsureModuleSymbolsLoaded(address));
  EXPECT_EQ(test_engine.questions, 1);
  EXPECT_TRUE(EnsureModuleSymbolsLoaded(0x20000));
  for (auto const address : {0xFFF8, 0x11000}) EXPECT_FALSE(EnsureModuleSymbolsLoaded(address));
}

TEST_F(NamesByTestEngine, UnknownAddressIsLookedUpOnceAndThenPasses) {
  for (unsigned __int64 const address : {0ull, 0x500ull, 0xFFFFFFFFFFFFFFFFull}) {
    test_engine.calls.clear();
    EXPECT_FALSE(EnsureModuleSymbolsLoaded(address));
    EXPECT_TRUE(EnsureModuleSymbolsLoaded(address));
    EXPECT_EQ(test_engine.calls, "refresh ");
  }
  EXPECT_FALSE(EnsureModuleSymbolsLoaded(0x508));
  test_engine.module_error = ERROR_INVALID_HANDLE;
  test_engine.calls.clear();
  EXPECT_FALSE(EnsureModuleSymbolsLoaded(0x700));
  EXPECT_EQ(test_engine.calls, "");
}

TEST_F(NamesByTestEngine, NewModuleIsFoundByARefreshOrLoaded) {
  test_engine.modules[1].is_new = true;
  EXPECT_EQ(SymGetModuleFromAddress(0x20001), "Plugin");
  EXPECT_EQ(test_engine.calls, started + "refresh ");
  auto const base = reinterpret_cast<std::uintptr_t>(GetModuleHandleW(nullptr));
  EXPECT_TRUE(EnsureModuleSymbolsLoaded(base + 5));
  EXPECT_EQ(test_engine.calls, started + "refresh refresh load module ");
  EXPECT_EQ(SymGetFullNameFromAddress(base + 5), "symbols_test_engine_tests!+5");
}

TEST_F(NamesByTestEngine, IsolatedEngineLooksForNoModule) {
  test_engine.modules[1].is_new = true;
  test_engine.calls.clear();
  {
    engine_isolation const isolation;
    for (int i = 0; i < 2; ++i) EXPECT_FALSE(EnsureModuleSymbolsLoaded(0x20001));
    EXPECT_TRUE(EnsureModuleSymbolsLoaded(0x10001));
    EXPECT_EQ(test_engine.calls, "");
  }
  EXPECT_TRUE(EnsureModuleSymbolsLoaded(0x20001));
}

TEST_F(NamesByTestEngine, SymbolsOfAllModulesAreLoadedInAdvance) {
  velt::detail::prepare_walks();
  for (auto const module : {L"symbols_test_engine_tests.exe", L"ntdll", L"velt"})
    EXPECT_TRUE(
        test_engine.named.contains(reinterpret_cast<std::uintptr_t>(GetModuleHandleW(module))));
}

TEST_F(NamesByTestEngine, TimedUsersGiveUpAfterTwentySeconds) {
  time_runs_out = true;
  limits.clear();
  EXPECT_FALSE(EnsureModuleSymbolsLoaded(0x10001));
  STACKFRAME64 frame{};
  test_engine.stack = {1};
  EXPECT_FALSE(StackWalkStep(&frame, nullptr, GetCurrentThread()));
  EXPECT_EQ(limits, (std::vector<DWORD>{20'000, 20'000}));
  EXPECT_EQ(SymGetModuleFromAddress(0x10001), "app");
  time_runs_out = false;
  EXPECT_TRUE(StackWalkStep(&frame, nullptr, GetCurrentThread()));
}

TEST_F(NamesByTestEngine, BlameGoesToTheFirstModuleThatIsNotListed) {
  test_engine.modules = {{"APP", 0x100, 0x10}, {"Kernel32", 0x200, 0x10}, {"ntdll", 0x300, 0x10}};
  EXPECT_EQ(error_address({0x201, 0x301, 0x101, 0x102}), 0x101u);
  EXPECT_EQ(error_address({0x201, 0x999, 0x101}), 0x999u);
  EXPECT_EQ(error_address({0x201, 0x301}), 0u);
  EXPECT_EQ(error_address({}), 0u);
  SkipModulesForError = "other;aPP;kernel";
  EXPECT_EQ(error_address({0x101, 0x201}), 0x201u);
  SkipModulesForError = "";
  EXPECT_EQ(error_address({0x201}), 0x201u);
}

TEST_F(NamesByTestEngine, NamesAreAskedForOnceWhileTheEngineIsHeld) {
  test_engine.symbols = {{0x10001, {"old"}}};
  EXPECT_EQ(trace({}), "");
  EXPECT_EQ(trace({0x10001, 0x20001}), "\n-> Plugin!+1\n-> app!old");
  auto const questions = test_engine.questions;
  waits = 0;
  test_engine.symbols = {{0x10001, {"new"}}};
  EXPECT_EQ(trace({0x10001, 0x20001}), "\n-> Plugin!+1\n-> app!old");
  EXPECT_EQ(SymGetFullNameFromAddress(0x10001), "app!old");
  EXPECT_EQ(test_engine.questions, questions);
  EXPECT_EQ(waits, 0);

  // What was nowhere may come to be known; a new module may lie where another
  // was; and a new engine may know more.
  EXPECT_EQ(SymGetFullNameFromAddress(0x30001), "!0x30001");
  test_engine.modules.push_back({"late", 0x30000, 0x1000});
  EXPECT_EQ(SymGetFullNameFromAddress(0x30001), "late!+1");
  EXPECT_EQ(SymGetModuleFromAddress(0x999), "");
  EXPECT_EQ(SymGetFullNameFromAddress(0x10001), "app!new");
  test_engine.symbols = {{0x10001, {"newest"}}};
  SymCleanup();
  EXPECT_EQ(SymGetFullNameFromAddress(0x10001), "!0x10001");
  EXPECT_TRUE(SymInitialize());
  EXPECT_EQ(SymGetFullNameFromAddress(0x10001), "app!newest");
}

TEST_F(SymbolsByTestEngine, WalkSkipsAndEndsAsAsked) {
  test_engine.stack = {1, 2, 3, 4, 5};
  struct {
    unsigned skip, max;
    address_list frames;
    std::size_t steps;
  } const rows[] = {{0, 64, {1, 2, 3, 4, 5}, 6}, {2, 2, {3, 4}, 4}, {4, 9, {5}, 6}, {7, 9, {}, 6}};
  for (auto const& row : rows) {
    test_engine.steps = 0;
    test_engine.machines.clear();
    EXPECT_EQ(walked(row.skip, row.max), row.frames);
    EXPECT_EQ(test_engine.machines, std::vector<DWORD>(row.steps, 0x8664));
  }
  EXPECT_THAT(test_engine.calls, testing::EndsWith(ended));
}

TEST_F(SymbolsByTestEngine, ExceptionEndsTheWalkAndItsHold) {
  test_engine.stack = {1, 2, 3, 4};
  test_engine.broken_step = 2;
  EXPECT_EQ(walked(0, 9), (address_list{1, 2}));
  EXPECT_THAT(test_engine.calls, testing::EndsWith(ended));
}

TEST_F(NamesByTestEngine, SingleStepsAreOfTheShortForm) {
  test_engine.stack = {1, 2};
  STACKFRAME64 frame{};
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(StackWalkStep(&frame, nullptr, GetCurrentThread()));
  EXPECT_EQ(frame.AddrPC.Offset, 2u);
  EXPECT_FALSE(StackWalkStep(&frame, nullptr, GetCurrentThread()));
  EXPECT_EQ(test_engine.machines, (std::vector<DWORD>{0x14C, 0x14C, 0x14C}));
}

TEST_F(NamesByTestEngine, VariablesAreWrittenWithTheirTypes) {
  int on_frame = -2;
  struct {
    DWORD basic_type;
    wchar_t const* type_name;
    ULONG flags, which_register, size;
    char const* line;
  } const rows[] = {
      {6, L"", 0x90, 22, 4, "    int v=0xfffffffe (-2)\n"},
      {31, L"", 0x80, 22, 4, "    HRESULT v=0x0 (0)\n"},
      {3, L"", 0x90, 21, 4, "    wchar v=0x0 (0)\n"},
      {0, L"Node*", 0x90, 22, 4, "    Node* v=0xfffffffe (-2)\n"},
      {0, L"SmartPtr<Node>", 0x90, 22, 4, "    SmartPtr<Node> v=0xfffffffe ()\n"},
      {0, L"", 0x90, 22, 4, "    <unknown> v=0xfffffffe (-2)\n"},
      {6, L"", 0x90, 22, 8, ""},
  };
  SYMBOL_INFO variable{};
  variable.Name[0] = 'v';
  variable.Address = static_cast<ULONG64>(-16);
  velt::detail::variable_frame_base = reinterpret_cast<std::uintptr_t>(&on_frame) + 16;
  for (auto const& row : rows) {
    velt::detail::variable_text.clear();
    test_engine.basic_type = row.basic_type;
    test_engine.type_name = row.type_name;
    variable.Flags = row.flags;
    variable.Register = row.which_register;
    EXPECT_TRUE(velt::detail::append_variable(&variable, row.size, nullptr));
    EXPECT_EQ(velt::detail::variable_text, row.line);
  }
}
