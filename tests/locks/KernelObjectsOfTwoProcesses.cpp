// Named kernel objects, with the helper program as the other process.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "velt/locks/Event.h"
#include "velt/locks/Mutex.h"
#include "velt/locks/Semaphore.h"

namespace {

constexpr unsigned limit = 20'000;

// The helper, at work on objects with the names given.
class Helper {
public:
  explicit Helper(std::string const& arguments) {
    std::string line = "\"" + program() + "\" " + arguments;
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION information;
    if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                        &startup, &information))
      return;
    CloseHandle(information.hThread);
    process.AttachHandle(information.hProcess);
  }
  ~Helper() noexcept(false) {
    if (process.IsValidHandle()) kill();
  }

  void kill() {
    TerminateProcess(process, 0xDEAD);
    WaitForSingleObject(process, limit);
  }

  DWORD exit_code() const {
    DWORD code = STILL_ACTIVE;
    WaitForSingleObject(process, limit);
    GetExitCodeProcess(process, &code);
    return code;
  }

private:
  static std::string program() {
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string const folder = path;
    return folder.substr(0, folder.rfind('\\')) + "\\locks_helper.exe";
  }

  THandle process;
};

std::string unique(char const* what) {
  return std::string("velt-two-") + what + "-" + std::to_string(GetCurrentProcessId());
}

}  // namespace

TEST(KernelObjectsOfTwoProcesses, EventAndSemaphoreAreSeenFromBothSides) {
  TEvent question(unique("event").c_str(), false, false);
  TSemaphore answers(unique("semaphore").c_str(), 3, 0);
  Helper helper("answer " + unique("event") + " " + unique("semaphore"));
  EXPECT_FALSE(answers.Lock(50));
  question.Set();
  EXPECT_TRUE(answers.Lock(limit));
  EXPECT_EQ(helper.exit_code(), 0u);
}

TEST(KernelObjectsOfTwoProcesses, MutexOfAKilledOwnerIsAcquired) {
  auto const acquire_from_the_dead = [](auto acquire) {
    TMutex mutex(unique("mutex").c_str());
    TEvent ready(unique("ready").c_str(), false, false);
    Helper helper("own " + unique("mutex") + " " + unique("ready"));
    ASSERT_TRUE(ready.Signaled(limit));
    ASSERT_FALSE(mutex.Lock(0));
    helper.kill();
    acquire(mutex);
    mutex.Unlock();
  };
  acquire_from_the_dead([](TMutex& mutex) { EXPECT_TRUE(mutex.Lock(limit)); });
  acquire_from_the_dead([](TMutex& mutex) { mutex.Lock(); });
  acquire_from_the_dead([](TMutex& mutex) {
    EXPECT_EQ(mutex.WaitForSingleObject(limit, FALSE), DWORD{WAIT_ABANDONED});
  });
}
