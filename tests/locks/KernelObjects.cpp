// What the owners of kernel objects do on the platform's real objects. Which
// call each operation makes, and what its failure does, stands in
// PlatformCalls.cpp.
#include <gtest/gtest.h>
#include <windows.h>

#include <functional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include "tests/support/Expect.h"
#include "tests/support/OpenHandles.h"
#include "velt/locks/Event.h"
#include "velt/locks/Handle.h"
#include "velt/locks/Lock.h"
#include "velt/locks/Mutex.h"
#include "velt/locks/Semaphore.h"
#include "velt/locks/WaitableTimer.h"

using velt_test::open_handles;
using velt_test::system_code;

// A handle is no answer to whether the new object is manual.
static_assert(!std::is_constructible_v<TEvent, void*> &&
              !std::is_constructible_v<TEvent, void*, bool> &&
              !std::is_constructible_v<TWaitableTimer, void*>);

namespace {

constexpr int limit = 20'000;
void* const minus_one = INVALID_HANDLE_VALUE;

void* raw(THandle const& handle) { return handle; }

// Runs when this thread next waits alertably. Must stay until then.
class QueuedCall {
public:
  explicit QueuedCall(std::function<void()> what) : action(std::move(what)) {
    QueueUserAPC([](ULONG_PTR self) { reinterpret_cast<QueuedCall*>(self)->run(); },
                 GetCurrentThread(), reinterpret_cast<ULONG_PTR>(this));
  }
  int runs = 0;

private:
  void run() {
    ++runs;
    action();
  }
  std::function<void()> action;
};

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

void on_another_thread(std::function<void()> action) { std::thread(action).join(); }

}  // namespace

TEST(Handle, AssignmentToItselfClosesAndHoldsNothing) {
  long const before = open_handles();
  TEvent event;
  THandle& same = event;
  same = event;
  EXPECT_EQ(raw(event), minus_one);
  EXPECT_EQ(open_handles(), before);
}

TEST(Handle, ClosingNothingIsLeftToThePlatformToRefuse) {
  THandle null(nullptr);
  EXPECT_EQ(system_code([&] { null.CloseHandle(); }), ERROR_INVALID_HANDLE);
  EXPECT_EQ(raw(null), nullptr);
  // Windows refuses -1 as well; a platform that does not gives no failure to throw.
  THandle nothing;
  bool const refused = !CloseHandle(minus_one);
  EXPECT_EQ(system_code([&] { nothing.CloseHandle(); }), refused ? ERROR_INVALID_HANDLE : -1);
  EXPECT_EQ(raw(nothing), minus_one);
}

TEST(Handle, WaitAnswersThePlatformsResult) {
  TEvent event(false, false);
  EXPECT_EQ(event.WaitForSingleObject(0, FALSE), DWORD{WAIT_TIMEOUT});
  event.Set();
  EXPECT_EQ(event.WaitForSingleObject(0, FALSE), WAIT_OBJECT_0);
  QueuedCall call([] {});
  EXPECT_EQ(event.WaitForSingleObject(0, FALSE), DWORD{WAIT_TIMEOUT});
  EXPECT_EQ(event.WaitForSingleObject(limit, TRUE), DWORD{WAIT_IO_COMPLETION});
  EXPECT_EQ(system_code([] { THandle(nullptr).WaitForSingleObject(0, FALSE); }),
            ERROR_INVALID_HANDLE);
}

TEST(Mutex, AbandonedOneIsAcquired) {
  TMutex timed, untimed;
  on_another_thread([&] {
    timed.Lock();
    untimed.Lock();
  });
  EXPECT_TRUE(timed.Lock(limit));
  untimed.Lock();
  timed.Unlock();
  untimed.Unlock();
}

TEST(Mutex, QueuedCallEndsATimedLockAndNotAnUntimedOne) {
  TMutex mutex;
  TEvent owned, give_back;
  std::thread owner([&] {
    TLock guard(mutex);
    owned.Set();
    give_back.WaitForSignal();
  });
  owned.WaitForSignal();
  QueuedCall nothing([] {});
  EXPECT_FALSE(mutex.Lock(limit));
  EXPECT_EQ(nothing.runs, 1);
  QueuedCall release([&] { give_back.Set(); });
  mutex.Lock();
  EXPECT_EQ(release.runs, 1);
  mutex.Unlock();
  owner.join();
}

TEST(Semaphore, ThreadIsInterruptedOutOfALock) {
  TSemaphore semaphore(1, 0);
  QueuedCall interrupt([] { throw EThreadInterrupt(); });
  EXPECT_THROW(semaphore.Lock(), EThreadInterrupt);
  semaphore.Unlock();
  EXPECT_TRUE(semaphore.Lock(0));
}

TEST(Event, QueuedCallEndsATimedWaitAndNotAnUntimedOne) {
  TEvent event(false, false);
  TSemaphore semaphore(1, 0);
  auto const give = [&] {
    event.Set();
    semaphore.Unlock();
  };
  QueuedCall call(give);
  EXPECT_FALSE(event.Signaled(limit)) << "although the call itself signalled";
  EXPECT_TRUE(event.Signaled(-1));
  EXPECT_TRUE(semaphore.Lock(0));
  QueuedCall for_event(give);
  event.WaitForSignal();
  EXPECT_FALSE(event.Signaled(0));

  EXPECT_TRUE(semaphore.Lock(0));
  QueuedCall again(give);
  EXPECT_FALSE(semaphore.Lock(limit));
  EXPECT_TRUE(semaphore.Lock(0));
  QueuedCall for_semaphore(give);
  semaphore.Lock();
  EXPECT_FALSE(semaphore.Lock(0));
}

TEST(KernelObjects, EventAndSemaphoreAreSeenFromBothSides) {
  TEvent question(unique("event").c_str(), false, false);
  TSemaphore answers(unique("semaphore").c_str(), 3, 0);
  Helper helper("answer " + unique("event") + " " + unique("semaphore"));
  EXPECT_FALSE(answers.Lock(50));
  question.Set();
  EXPECT_TRUE(answers.Lock(limit));
  EXPECT_EQ(helper.exit_code(), 0u);
}

TEST(KernelObjects, MutexOfAKilledOwnerIsAcquired) {
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

// The lock's destructor cannot wait for a thread that is no more.
TEST(KernelObjects, ProcessEndsWhileAThreadIsInsideTheInnerWordOfAStaticLock) {
  Helper helper("leave");
  EXPECT_EQ(helper.exit_code(), 0u);
}

TEST(Handle, RawHandleIsSharedUnlessAttached) {
  long const before = open_handles();
  void* const event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  {
    THandle sharing(event);
    EXPECT_NE(raw(sharing), event);
    sharing = event;
    EXPECT_EQ(open_handles(), before + 2);
    sharing.AttachHandle(event);
    EXPECT_EQ(raw(sharing), event);
    EXPECT_EQ(open_handles(), before + 1) << "the handle held before is closed";
    EXPECT_EQ(sharing.DetachHandle(), event);
    EXPECT_EQ(sharing.DetachHandle(), minus_one);
  }
  EXPECT_TRUE(CloseHandle(event));
}
