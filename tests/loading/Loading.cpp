// Loads the library, unloads it, and goes on to throw. Not linked with the library.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <typeinfo>

#include "tests/support/Imports.h"

using velt_test::Watch;

VELT_WATCH(AddVectoredExceptionHandler, CloseHandle, CreateEventW, CreateMutexW,
           DeleteCriticalSection, InitializeCriticalSectionEx, OutputDebugStringA,
           RemoveVectoredExceptionHandler, TlsAlloc, TlsFree);

namespace {

std::string failing;
int number;  // of the call that fails
std::unique_ptr<Watch> watch;

void watch_calls() {
  watch = std::make_unique<Watch>(failing);
  watch->passing = number - 1;
}

int made(std::string_view call) {
  int found = 0;
  for (auto at = watch->calls.find(call); at != std::string::npos; ++found)
    at = watch->calls.find(call, at + 1);
  return found;
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
  if (type == "16ESystemException") std::_Exit(7);
  return EXCEPTION_CONTINUE_SEARCH;
}

void fail_to_load(char const* call, int which) {
  failing = call;
  number = which;
  AddVectoredExceptionHandler(1, end_with_throw);
  velt_test::load_velt(watch_calls);
}

void turn_on_shadow_stacks() {
  static velt_test::Replacement const policy{
      VELT_CALL(GetProcessMitigationPolicy), [](auto, HANDLE, auto, void* result, SIZE_T) -> BOOL {
        static_cast<PROCESS_MITIGATION_USER_SHADOW_STACK_POLICY*>(result)->EnableUserShadowStack = 1;
        return TRUE;
      }};
  watch_calls();
}

// Where the library looks for this handler, a thrown object has another one.
void change_thrown_objects() {
  static velt_test::Replacement const handler{
      velt_test::Call<std::terminate_handler (*)()>{"_ZSt13get_terminatev"},
      [](auto) -> std::terminate_handler { return nullptr; }};
  watch_calls();
}

// Ends with 8 if the library loads and says so.
[[noreturn]] void load_and_expect(char const* line, void (*patch)()) {
  bool const is_loaded = velt_test::load_velt(patch);
  std::_Exit(is_loaded && made(line) == 1 && made("(!)") == 1 ? 8 : 9);
}

}  // namespace

TEST(Loading, SaysWhatItDoesWithout) {
  EXPECT_EXIT(load_and_expect("(!) velt: shadow stacks are on", turn_on_shadow_stacks),
              testing::ExitedWithCode(8), "");
  EXPECT_EXIT(load_and_expect("(!) velt: thrown objects differ", change_thrown_objects),
              testing::ExitedWithCode(8), "");
  // The later slots lie elsewhere.
  EXPECT_EXIT(
      {
        for (int i = 0; i < TLS_MINIMUM_AVAILABLE; ++i) TlsAlloc();
        load_and_expect("(!) velt: thread slots lie elsewhere", watch_calls);
      },
      testing::ExitedWithCode(8), "");
  EXPECT_EXIT(load_and_expect("(!)", watch_calls), testing::ExitedWithCode(9), "");
}

TEST(Loading, LeavesNothingBehindWhenItIsUnloaded) {
  for (int round = 0; round < 3; ++round) {
    HMODULE const library = velt_test::load_velt(watch_calls);
    ASSERT_TRUE(library);
    FreeLibrary(library);
    EXPECT_FALSE(GetModuleHandleA("velt.dll"));
    EXPECT_GE(made("CreateMutexW("), 1);
    EXPECT_EQ(made("CloseHandle("), made("CreateMutexW(") + made("CreateEventW("));
    EXPECT_GE(made("DeleteCriticalSection("), 1);
    EXPECT_GE(made("TlsAlloc("), 1);
    EXPECT_EQ(made("TlsFree("), made("TlsAlloc("));
    EXPECT_EQ(made("AddVectoredExceptionHandler("), 1);
    EXPECT_EQ(made("RemoveVectoredExceptionHandler("), 1);
    watch.reset();
    EXPECT_THROW(throw round, int);
  }
}

TEST(Loading, FailsByAnExceptionThatTheLibraryDoesNotCatch) {
  EXPECT_EXIT(fail_to_load("CreateMutexW", 1), testing::ExitedWithCode(7), "");
  EXPECT_EXIT(fail_to_load("CreateMutexW", 4), testing::ExitedWithCode(7), "");
  EXPECT_EXIT(fail_to_load("CreateEventW", 1), testing::ExitedWithCode(7), "");
  EXPECT_EXIT(fail_to_load("TlsAlloc", 3), testing::ExitedWithCode(7), "");
}
