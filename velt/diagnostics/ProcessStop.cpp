#include "velt/diagnostics/ProcessStopInternal.h"

#include <windows.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <utility>

#include "velt/base/EntryInternal.h"
#include "velt/base/LibraryReferenceInternal.h"
#include "velt/base/LoadOrderInternal.h"
#include "velt/diagnostics/ProcessLocksInternal.h"
#include "velt/symbols/LoaderLockInternal.h"
#include "velt/symbols/SymbolsInternal.h"

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace velt::detail {
namespace {

constexpr DWORD longest_stop = 30'000;  // milliseconds, as all times here
constexpr DWORD patience = 1000;        // with the platform's locks

// A thread that has to wait for none of the platform's locks is through in this time.
constexpr DWORD time_of_probe = 50;
constexpr ULONGLONG longest_release = 5000;

// How long a thread may take to begin, to stop or to end.
constexpr DWORD pause = 10;
constexpr int tries = 500;

VELT_LOAD_STEP(platform_locks) struct {
  // Unlike other ways to list threads, allocates nothing from a heap.
  LONG(NTAPI* const next_thread)
  (HANDLE process, HANDLE previous, ACCESS_MASK access, ULONG attributes, ULONG flags,
   HANDLE* next) =
      find_entry<LONG NTAPI(HANDLE, HANDLE, ACCESS_MASK, ULONG, ULONG, HANDLE*)>(L"ntdll",
                                                                                 "NtGetNextThread");
} const entries;

VELT_LOAD_STEP(platform_locks) struct {
  HMODULE const module = GetModuleHandleW(L"ntdll");
  std::uint64_t const start = reinterpret_cast<std::uintptr_t>(module);
  std::uint64_t const size = size_of(module);

  bool has(std::uint64_t address) const noexcept { return address - start < size; }

  // Is the address in this module's code, but not right behind a system call?
  bool has_within(std::uint64_t address) const noexcept {
    constexpr unsigned char system_call[] = {0x0F, 0x05};
    return has(address) && std::memcmp(reinterpret_cast<char const*>(address) - sizeof system_call,
                                       system_call, sizeof system_call) != 0;
  }

  static std::uint64_t size_of(HMODULE module) noexcept {
    auto const base = reinterpret_cast<char const*>(module);
    auto const dos = reinterpret_cast<IMAGE_DOS_HEADER const*>(base);
    return reinterpret_cast<IMAGE_NT_HEADERS const*>(base + dos->e_lfanew)
        ->OptionalHeader.SizeOfImage;
  }
} const lowest_module;

VELT_LOAD_STEP(program_name_found) struct path_of_module {
  path_of_module() noexcept {
    GetModuleFileNameW(reinterpret_cast<HMODULE>(&__ImageBase), text, std::size(text));
  }
  wchar_t text[1024];
} own_path;

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

// A thread that takes each lock which a writer may need, as threads do that begin, load
// a library and end. If a stopped thread owns one, it does not get through.
class probe {
public:
  explicit probe(std::array<void*, 2> const& its_heaps) noexcept
      : heaps(its_heaps), thread(CreateThread(nullptr, 0, take_each, this, 0, nullptr)) {}
  ~probe() { is_through(INFINITE); }

  bool is_through(DWORD limit) const noexcept {
    return !thread.handle || WaitForSingleObject(thread.handle, limit) == WAIT_OBJECT_0;
  }

private:
  static DWORD WINAPI take_each(void* own) noexcept {
    FreeLibrary(LoadLibraryW(L"kernel32.dll"));
    data_locks const rest(when_busy::wait, static_cast<probe const*>(own)->heaps);
    return 0;
  }

  std::array<void*, 2> const heaps;
  handle_owner const thread;
};

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
    while (found == outcome::is_new) {
      auto const first = count.load();
      found = suspend_new_ones(one, other);
      for (auto i = first; i != count; ++i)
        if (records[i].is_stopped && !stands(records[i])) return false;
    }
    return found == outcome::nobody_new;
  }

  // Returns when the others own none of the platform's locks. Not all of these can be
  // taken before: a thread that waits for one of the locks which this process takes may
  // own such another one. So while a probe does not get through, threads in the middle
  // of the platform's code run on for a moment, one at a time. False if that takes too
  // long; all run again then.
  bool release_locks(DWORD one, DWORD other, std::array<void*, 2> const& heaps) noexcept {
    auto const end = GetTickCount64() + longest_release;
    for (bool has_moved = false;;) {
      probe const attempt(heaps);
      if (attempt.is_through(time_of_probe)) {
        if (!has_moved) return true;
        has_moved = false;
        if (!stop_all_but(one, other)) return resume(), false;
      }
      while (!attempt.is_through(0)) {
        if (GetTickCount64() >= end) return resume(), false;
        has_moved = true;
        move_on(attempt);
      }
    }
  }

  // Only the first call has an effect.
  void resume() noexcept {
    for (auto left = count.exchange(0); left != 0; --left) {
      auto const& each = records[left - 1];
      if (each.is_stopped) ResumeThread(each.thread);
      CloseHandle(each.thread);
    }
  }

private:
  struct record {
    HANDLE thread;
    DWORD id;
    bool is_stopped;
    bool is_held_by_others;
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
  outcome suspend_new_ones(DWORD one, DWORD other) noexcept {
    if (!entries.next_thread) return outcome::runs_on;
    auto found = outcome::nobody_new;
    HANDLE previous = nullptr, thread;
    for (bool is_kept = true; next(previous, is_kept, thread); previous = thread) {
      DWORD const id = GetThreadId(thread);
      is_kept = id != one && id != other && !knows(id);
      if (!is_kept) continue;
      if (!suspend(thread, id)) return outcome::runs_on;
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

  // False if the thread runs on.
  bool suspend(HANDLE thread, DWORD id) noexcept {
    if (count == most ||
        !VirtualAlloc(records + count, sizeof *records, MEM_COMMIT, PAGE_READWRITE))
      return CloseHandle(thread), false;
    auto const suspended_before = SuspendThread(thread);
    bool const is_stopped = suspended_before != static_cast<DWORD>(-1);
    records[count] = {thread, id, is_stopped, is_stopped && suspended_before != 0};
    ++count;
    return is_stopped || WaitForSingleObject(thread, tries * pause) == WAIT_OBJECT_0;
  }

  // A suspended thread may still run for a moment. It has stopped once its registers
  // can be read.
  //
  // The lowest module of the platform has internal locks, which are held for a few
  // instructions and which no other code can take. A thread that stands in this
  // module's code is resumed for a moment.
  static bool stands(record& each) noexcept {
    for (int left = tries; left != 0; --left, Sleep(1)) {
      CONTEXT context;
      context.ContextFlags = CONTEXT_CONTROL;
      if (!GetThreadContext(each.thread, &context)) {
        if (WaitForSingleObject(each.thread, 0) == WAIT_OBJECT_0) return true;
      } else if (each.is_held_by_others || left == 1 || !lowest_module.has_within(context.Rip)) {
        return true;
      } else {
        ResumeThread(each.thread);
        SwitchToThread();
        each.is_held_by_others = SuspendThread(each.thread) != 0;
      }
    }
    return false;
  }

  void move_on(probe const& attempt) noexcept {
    for (std::size_t i = 0; i != count && !attempt.is_through(0); ++i) {
      auto& each = records[i];
      if (!each.is_stopped || each.is_held_by_others || !waits_inside(each.thread)) continue;
      ResumeThread(each.thread);
      attempt.is_through(1);
      each.is_held_by_others = SuspendThread(each.thread) != 0;
      stands(each);
    }
  }

  // Is the thread in a system call, or elsewhere, below more of the lowest module's code?
  static bool waits_inside(HANDLE thread) noexcept {
    CONTEXT context;
    context.ContextFlags = CONTEXT_CONTROL;
    return GetThreadContext(thread, &context) && lowest_module.has(context.Rip) &&
           lowest_module.has(*reinterpret_cast<std::uint64_t const*>(context.Rsp));
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
  bool wait_for_helper_as_long_as(DWORD limit) noexcept {
    return WaitForSingleObject(callers_turn.handle, limit) == WAIT_OBJECT_0;
  }

  // Asks for the stop. False if the platform's locks cannot be taken in time, or if a
  // thread cannot be stopped.
  bool have_others_stopped() noexcept {
    heaps = heaps_of_run_times();
    stop_is_wanted = true;
    wake_helper();
    if (!wait_for_helper_as_long_as(patience)) {
      if (!is_decided.exchange(true)) return false;
      wait_for_helper();
    }
    return all_stand;
  }

  stopped_threads others;
  std::function<void()> work;

private:
  static bool create_thread(std::shared_ptr<helper> const& shared) {
    auto own = std::make_unique<std::shared_ptr<helper>>(shared);
    if (!hold_library_in_time()) return false;
    handle_owner const thread(CreateThread(nullptr, 0, run, own.get(), 0, nullptr));
    if (!thread.handle) return release_library(), false;
    own.release();
    return true;
  }

  // The library must stay loaded while the thread runs. Taking a reference waits for the
  // loader lock, so code of the platform does that on a thread of its own. If that takes
  // too long, the library stays loaded.
  static bool hold_library_in_time() noexcept {
    auto const load =
        reinterpret_cast<LPTHREAD_START_ROUTINE>(reinterpret_cast<void*>(LoadLibraryW));
    handle_owner const thread(CreateThread(nullptr, 0, load, own_path.text, 0, nullptr));
    DWORD result = 0;
    return thread.handle && WaitForSingleObject(thread.handle, patience) == WAIT_OBJECT_0 &&
           GetExitCodeThread(thread.handle, &result) && result != 0;
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
    if (!wait_for_caller(INFINITE) || !stop_is_wanted || !stop_others()) return;
    wake_caller();
    if (!all_stand) return;
    if (wait_for_caller(longest_stop) && work) work();
    others.resume();
    wake_caller();
  }

  // False if the caller did not wait so long.
  //
  // While this thread owns all the locks, no other thread does; once all others are
  // stopped, none can take one. The locks are waited for: under some platforms an attempt
  // never succeeds while others wait.
  bool stop_others() noexcept {
    auto const own_id = GetCurrentThreadId();
    {
      loader_lock const loader(when_busy::wait);
      data_locks const rest(when_busy::wait, heaps);
      if (is_decided.exchange(true)) return false;
      all_stand = loader.held() && rest.all_held() && others.stop_all_but(caller_id, own_id);
    }
    all_stand = all_stand && others.release_locks(caller_id, own_id, heaps);
    if (!all_stand) others.resume();
    return true;
  }

  void wake_caller() noexcept { SetEvent(callers_turn.handle); }

  // False if the caller has ended, or does not come in time.
  bool wait_for_caller(DWORD limit) noexcept {
    HANDLE const either[] = {helpers_turn.handle, caller.handle};
    return WaitForMultipleObjects(2, either, FALSE, limit) == WAIT_OBJECT_0;
  }

  std::array<void*, 2> heaps{};  // of the run times
  std::atomic<bool> stop_is_wanted = false;
  std::atomic<bool> is_decided = false;  // that there is a stop, or none
  bool all_stand = false;
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
  bool const all_stand = with->have_others_stopped();
  at = all_stand ? step::stopped : step::none;
  return all_stand;
}

void process_stop::run_on_helper(std::function<void()> work) noexcept {
  with->work = std::move(work);
  with->wake_helper();
  // The helper cannot look at the clock while it works.
  if (!with->wait_for_helper_as_long_as(longest_stop)) {
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
