#include "velt/diagnostics/ProcessStopInternal.h"

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <utility>

#include "velt/base/EntryInternal.h"
#include "velt/base/LibraryReferenceInternal.h"
#include "velt/base/LoadOrderInternal.h"
#include "velt/symbols/LoaderLockInternal.h"

namespace velt::detail {
namespace {

constexpr DWORD longest_stop = 30'000;  // milliseconds, as all times here
constexpr ULONGLONG patience = 1000;

// How long a thread may take to begin, to stop or to end.
constexpr DWORD pause = 10;
constexpr int tries = 500;

VELT_LOAD_STEP(platform_locks) struct {
  // Unlike other ways to list threads, allocates nothing from a heap.
  LONG(NTAPI* const next_thread)(HANDLE process, HANDLE previous, ACCESS_MASK access,
                                     ULONG attributes, ULONG flags, HANDLE* next) =
      find_entry<LONG NTAPI(HANDLE, HANDLE, ACCESS_MASK, ULONG, ULONG, HANDLE*)>(
          L"ntdll", "NtGetNextThread");
} const entries;

VELT_LOAD_STEP(platform_locks) struct {
  HMODULE const module = GetModuleHandleW(L"ntdll");
  std::uint64_t const start = reinterpret_cast<std::uintptr_t>(module);
  std::uint64_t const size = size_of(module);

  // Is the address in this module's code, but not right behind a system call?
  bool has_within(std::uint64_t address) const noexcept {
    constexpr unsigned char system_call[] = {0x0F, 0x05};
    return address - start < size &&
           std::memcmp(reinterpret_cast<char const*>(address) - sizeof system_call, system_call,
                       sizeof system_call) != 0;
  }

  static std::uint64_t size_of(HMODULE module) noexcept {
    auto const base = reinterpret_cast<char const*>(module);
    auto const dos = reinterpret_cast<IMAGE_DOS_HEADER const*>(base);
    return reinterpret_cast<IMAGE_NT_HEADERS const*>(base + dos->e_lfanew)
        ->OptionalHeader.SizeOfImage;
  }
} const lowest_module;

struct handle_owner {
  explicit handle_owner(HANDLE its_handle) noexcept : handle(its_handle) {}
  ~handle_owner() {
    if (handle) CloseHandle(handle);
  }
  handle_owner(handle_owner const&) = delete;
  handle_owner& operator=(handle_owner const&) = delete;

  HANDLE const handle;
};

HANDLE handle_of_calling_thread() noexcept {
  HANDLE handle = nullptr;
  DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &handle,
                  SYNCHRONIZE, FALSE, 0);
  return handle;
}

// Threads that were stopped, or have ended. Its memory does not come from a heap:
// while it grows, another thread owns the locks of the heaps.
class stopped_threads {
public:
  stopped_threads() noexcept
      : records(static_cast<record*>(
            VirtualAlloc(nullptr, most * sizeof(record), MEM_RESERVE, PAGE_READWRITE))) {}
  ~stopped_threads() {
    resume();
    VirtualFree(records, 0, MEM_RELEASE);
  }
  stopped_threads(stopped_threads const&) = delete;
  stopped_threads& operator=(stopped_threads const&) = delete;

  // Stops all but two. Repeats from the start until no new thread appears: a thread
  // whose creator was stopped while creating it would run as soon as the locks are
  // free.
  bool stop_all_but(DWORD one, DWORD other) noexcept {
    auto found = outcome::is_new;
    while (found == outcome::is_new) found = stop_new_ones(one, other);
    return found == outcome::nobody_new;
  }

  // Only the first call has an effect.
  void resume() noexcept {
    for (auto left = count.exchange(0); left != 0; --left) {
      auto const& [thread, id, is_stopped] = records[left - 1];
      if (is_stopped) ResumeThread(thread);
      CloseHandle(thread);
    }
  }

private:
  struct record {
    HANDLE thread;
    DWORD id;
    bool is_stopped;
  };
  static constexpr std::size_t most = 1 << 20;
  static constexpr ACCESS_MASK access =
      THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT | THREAD_QUERY_LIMITED_INFORMATION | SYNCHRONIZE;

  bool knows(DWORD id) const noexcept {
    for (std::size_t i = 0; i != count; ++i)
      if (records[i].id == id) return true;
    return false;
  }

  enum class outcome { nobody_new, is_new, runs_on };

  // Goes through the list of threads once.
  outcome stop_new_ones(DWORD one, DWORD other) noexcept {
    if (!entries.next_thread) return outcome::runs_on;
    auto found = outcome::nobody_new;
    HANDLE previous = nullptr, thread;
    for (bool is_kept = true; next(previous, is_kept, thread); previous = thread) {
      DWORD const id = GetThreadId(thread);
      is_kept = id != one && id != other && !knows(id);
      if (!is_kept) continue;
      if (!stop(thread, id)) return outcome::runs_on;
      found = outcome::is_new;
      // The list cannot continue from a thread that has ended.
      if (!records[count - 1].is_stopped) return found;
    }
    return found;
  }

  static bool next(HANDLE previous, bool is_kept, HANDLE& thread) noexcept {
    bool const is_there =
        entries.next_thread(GetCurrentProcess(), previous, access, 0, 0, &thread) == 0;
    if (!is_kept) CloseHandle(previous);
    return is_there;
  }

  // False if the thread still runs.
  bool stop(HANDLE thread, DWORD id) noexcept {
    if (count == most ||
        !VirtualAlloc(records + count, sizeof *records, MEM_COMMIT, PAGE_READWRITE))
      return CloseHandle(thread), false;
    auto const suspended_before = SuspendThread(thread);
    bool const is_stopped = suspended_before != static_cast<DWORD>(-1);
    records[count] = {thread, id, is_stopped};
    ++count;
    return is_stopped ? stands(thread, suspended_before != 0)
                      : WaitForSingleObject(thread, tries * pause) == WAIT_OBJECT_0;
  }

  // A suspended thread may still run for a moment. It has stopped once its registers
  // can be read.
  //
  // The lowest module of the platform has internal locks, which are held for a few
  // instructions and which no other code can take. A thread that stands in this
  // module's code is resumed for a moment.
  static bool stands(HANDLE thread, bool is_held_by_others) noexcept {
    for (int left = tries; left != 0; --left, Sleep(1)) {
      CONTEXT context;
      context.ContextFlags = CONTEXT_CONTROL;
      if (!GetThreadContext(thread, &context)) {
        if (WaitForSingleObject(thread, 0) == WAIT_OBJECT_0) return true;
      } else if (is_held_by_others || left == 1 || !lowest_module.has_within(context.Rip)) {
        return true;
      } else {
        ResumeThread(thread);
        SwitchToThread();
        is_held_by_others = SuspendThread(thread) != 0;
      }
    }
    return false;
  }

  record* const records;
  std::atomic<std::size_t> count = 0;
};

}  // namespace

// The state that both threads share. They take turns, each setting the other's event.
class process_stop::helper {
public:
  helper() noexcept = default;

  // False if the helper does not begin in time.
  static bool start(std::shared_ptr<helper> const& shared) {
    if (!shared->caller.handle || !shared->callers_turn.handle || !shared->helpers_turn.handle)
      return false;
    return create_thread(shared) && shared->wait_for_helper(tries);
  }

  void wake_helper() noexcept { SetEvent(helpers_turn.handle); }

  // In short waits: the caller itself may be stopped for another dump meanwhile.
  bool wait_for_helper(int limit) noexcept {
    for (; limit != 0; --limit)
      if (WaitForSingleObject(callers_turn.handle, pause) == WAIT_OBJECT_0) return true;
    return false;
  }
  bool wait_for_helper() noexcept {
    return WaitForSingleObject(callers_turn.handle, INFINITE) == WAIT_OBJECT_0;
  }
  bool wait_for_helper_as_long_as_a_stop() noexcept {
    return WaitForSingleObject(callers_turn.handle, longest_stop) == WAIT_OBJECT_0;
  }

  stopped_threads others;
  std::function<void()> work;
  std::atomic<bool> stop_is_wanted = false;
  bool all_stand = false;

private:
  // The library must stay loaded while the thread runs. Taking a reference waits for
  // the loader lock, unless this thread owns it already.
  static bool create_thread(std::shared_ptr<helper> const& shared) {
    auto own = std::make_unique<std::shared_ptr<helper>>(shared);
    for (auto const end = GetTickCount64() + patience; GetTickCount64() < end; Sleep(1)) {
      loader_lock const loader;
      if (!loader.held()) continue;
      hold_library();
      handle_owner const thread(CreateThread(nullptr, 0, run, own.get(), 0, nullptr));
      if (!thread.handle) return release_library(), false;
      own.release();
      return true;
    }
    return false;
  }

  static DWORD WINAPI run(void* own) noexcept {
    {
      std::unique_ptr<std::shared_ptr<helper>> const shared(
          static_cast<std::shared_ptr<helper>*>(own));
      (*shared)->serve();
    }
    leave_library_and_end_thread();
  }

  void serve() noexcept {
    wake_caller();
    if (!wait_for_caller(INFINITE) || !stop_is_wanted) return;
    all_stand = others.stop_all_but(caller_id, GetCurrentThreadId());
    if (!all_stand) others.resume();
    wake_caller();
    if (!all_stand) return;
    if (wait_for_caller(longest_stop) && work) work();
    others.resume();
    wake_caller();
  }

  void wake_caller() noexcept { SetEvent(callers_turn.handle); }

  // False if the caller has ended, or does not come in time.
  bool wait_for_caller(DWORD limit) noexcept {
    HANDLE const either[] = {helpers_turn.handle, caller.handle};
    return WaitForMultipleObjects(2, either, FALSE, limit) == WAIT_OBJECT_0;
  }

  DWORD const caller_id = GetCurrentThreadId();
  handle_owner const caller{handle_of_calling_thread()};
  handle_owner const callers_turn{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
  handle_owner const helpers_turn{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
};

process_stop::process_stop() : with(std::make_shared<helper>()) {
  if (helper::start(with)) at = step::ready;
}

process_stop::~process_stop() {
  if (at == step::stopped)
    let_others_go();
  else
    with->wake_helper();  // to leave
}

bool process_stop::stop_others() noexcept {
  if (at != step::ready) return false;
  with->stop_is_wanted = true;
  with->wake_helper();
  with->wait_for_helper();
  at = with->all_stand ? step::stopped : step::none;
  return with->all_stand;
}

void process_stop::run_on_helper(std::function<void()> work) noexcept {
  with->work = std::move(work);
  with->wake_helper();
  // The helper cannot look at the clock while it works.
  if (!with->wait_for_helper_as_long_as_a_stop()) {
    with->others.resume();
    with->wait_for_helper();
  }
  at = step::none;
}

void process_stop::let_others_go() noexcept {
  if (at != step::stopped) return;
  with->wake_helper();
  with->wait_for_helper();
  at = step::none;
}

}  // namespace velt::detail
