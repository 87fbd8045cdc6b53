// A thread that owns the loader lock, as in a DllMain, and one that needs it for the
// symbol engine must not wait for each other.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdio>
#include <string>
#include <thread>

#include "velt/symbols/Symbols.h"

extern "C" {
NTSTATUS NTAPI LdrLockLoaderLock(ULONG flags, ULONG* state, ULONG_PTR* cookie);
NTSTATUS NTAPI LdrUnlockLoaderLock(ULONG flags, ULONG_PTR cookie);
}

namespace {

// A test that hangs ends the process.
struct SymbolsAndLoader : testing::Test {
  SymbolsAndLoader() {
    watch = std::thread([this] {
      if (WaitForSingleObject(is_over, 120'000) != WAIT_TIMEOUT) return;
      std::puts("hangs");
      std::fflush(stdout);
      TerminateProcess(GetCurrentProcess(), 1);
    });
  }
  ~SymbolsAndLoader() override {
    SetEvent(is_over);
    watch.join();
    for (auto const event : {is_over, is_owned, is_done}) CloseHandle(event);
  }

  static HANDLE make_event() { return CreateEventW(nullptr, TRUE, FALSE, nullptr); }

  HANDLE const is_over = make_event(), is_owned = make_event(), is_done = make_event();
  std::thread watch;
};

class loader_owner {
public:
  loader_owner() { LdrLockLoaderLock(0, nullptr, &cookie); }
  ~loader_owner() { LdrUnlockLoaderLock(0, cookie); }
  loader_owner(loader_owner const&) = delete;

private:
  ULONG_PTR cookie = 0;
};

}  // namespace

TEST_F(SymbolsAndLoader, OwnerOfTheLoaderLockGetsItsStackWhileAnotherThreadStartsTheEngine) {
  std::string stack, stack_of_other;
  std::thread other([&] {
    WaitForSingleObject(is_owned, INFINITE);
    stack_of_other = GetMyDebugStack();
  });
  {
    loader_owner const owner;
    SetEvent(is_owned);
    Sleep(300);  // the other thread is waiting for the loader
    stack = GetMyDebugStack();
  }
  other.join();
  EXPECT_NE(stack, "");
  EXPECT_NE(stack_of_other, "");
}

TEST_F(SymbolsAndLoader, NoNewModuleIsFoundWhileTheLoaderHangs) {
  ASSERT_TRUE(SymInitialize());
  std::thread other([&] {
    loader_owner const owner;
    SetEvent(is_owned);
    WaitForSingleObject(is_done, INFINITE);
  });
  WaitForSingleObject(is_owned, INFINITE);
  constexpr unsigned __int64 address = 0x777;  // in no module
  EXPECT_FALSE(EnsureModuleSymbolsLoaded(address));
  EXPECT_FALSE(EnsureModuleSymbolsLoaded(address)) << "not looked for, so not remembered";
  EXPECT_NE(GetMyDebugStack(), "");
  SetEvent(is_done);
  other.join();
  EXPECT_FALSE(EnsureModuleSymbolsLoaded(address));
  EXPECT_TRUE(EnsureModuleSymbolsLoaded(address));
  SymCleanup();
}
