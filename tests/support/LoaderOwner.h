// Another thread that has the loader lock while it lives, as in a DllMain.
#pragma once

#include <windows.h>
#include <winternl.h>

#include <thread>

#include "velt/locks/Event.h"

extern "C" {
NTSTATUS NTAPI LdrLockLoaderLock(ULONG flags, ULONG* state, ULONG_PTR* cookie);
NTSTATUS NTAPI LdrUnlockLoaderLock(ULONG flags, ULONG_PTR cookie);
}

namespace velt_test {

class loader_owner {
public:
  loader_owner() { taken.WaitForSignal(); }
  loader_owner(loader_owner const&) = delete;
  ~loader_owner() {
    give_back.SetEvent();
    thread.join();
  }

  // What the thread does in the loader.
  [[gnu::noipa]] void sleep_in_loader() {
    taken.SetEvent();
    give_back.WaitForSignal();
    asm volatile("");  // so that the call before is no jump
  }

private:
  TEvent taken{true, false}, give_back{true, false};
  std::thread thread{[this] {
    ULONG_PTR cookie;
    LdrLockLoaderLock(0, nullptr, &cookie);
    sleep_in_loader();
    LdrUnlockLoaderLock(0, cookie);
  }};
};

}  // namespace velt_test
