// A thread that owns the loader lock, as in a DllMain or in a static constructor of
// a DLL, and one that needs it for the symbol engine must not wait for each other.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <thread>

#include "tests/support/LoaderOwner.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/symbols/Symbols.h"

namespace {

std::string stack_of_throw() {
  try {
    throw EGeneric();
  } catch (EGeneric& error) {
    return error["Stack"].as_string();
  }
}

}  // namespace

TEST(SymbolsAndLoader, OwnerOfTheLoaderLockThrowsWhileAnotherThreadStartsTheEngine) {
  VeltDebugSetup(true);
  TEvent owned(true, false);
  std::string stack_of_other;
  std::thread other([&] {
    owned.WaitForSignal();
    stack_of_other = stack_of_throw();
  });
  ULONG_PTR cookie;
  LdrLockLoaderLock(0, nullptr, &cookie);
  owned.SetEvent();
  Sleep(300);  // the other thread is waiting for the loader
  EXPECT_NE(stack_of_throw(), "");
  LdrUnlockLoaderLock(0, cookie);
  other.join();
  EXPECT_NE(stack_of_other, "");
  VeltDebugSetup(false);
}

TEST(SymbolsAndLoader, NoNewModuleIsFoundWhileTheLoaderHangs) {
  ASSERT_TRUE(SymInitialize());
  constexpr unsigned __int64 address = 0x777;  // in no module
  {
    velt_test::loader_owner const owner;
    EXPECT_FALSE(EnsureModuleSymbolsLoaded(address));
    EXPECT_FALSE(EnsureModuleSymbolsLoaded(address)) << "not looked for, so not remembered";
    EXPECT_NE(GetMyDebugStack(), "");
  }
  EXPECT_FALSE(EnsureModuleSymbolsLoaded(address));
  EXPECT_TRUE(EnsureModuleSymbolsLoaded(address));
  SymCleanup();
}
