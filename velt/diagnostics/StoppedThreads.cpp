#include "velt/diagnostics/StoppedThreadsInternal.h"

#include <cstdint>
#include <cstring>

#include "velt/base/EntryInternal.h"
#include "velt/base/LoadOrderInternal.h"
#include "velt/diagnostics/ProcessLocksInternal.h"

namespace velt::detail {
namespace {

constexpr std::size_t most = 1 << 20;

// A thread that has to wait for none of the platform's locks is through in this time.
constexpr DWORD time_of_probe = 50;  // milliseconds, as all times here
constexpr ULONGLONG longest_release = 5000;

// How long a thread may take to stop or to end.
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

constexpr ACCESS_MASK access =
    THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT | THREAD_QUERY_LIMITED_INFORMATION | SYNCHRONIZE;

bool next(HANDLE previous, bool is_kept, HANDLE& thread) noexcept {
  bool const is_there =
      entries.next_thread(GetCurrentProcess(), previous, access, 0, 0, &thread) == 0;
  if (!is_kept) CloseHandle(previous);
  return is_there;
}

// Is the thread in a system call, or elsewhere, below more of the lowest module's code?
bool waits_inside(HANDLE thread) noexcept {
  CONTEXT context;
  context.ContextFlags = CONTEXT_CONTROL;
  return GetThreadContext(thread, &context) && lowest_module.has(context.Rip) &&
         lowest_module.has(*reinterpret_cast<std::uint64_t const*>(context.Rsp));
}

}  // namespace

// A thread that takes each lock which a writer may need, as threads do that begin, load
// a library and end. If a stopped thread owns one, it does not get through.
class stopped_threads::probe {
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

stopped_threads::stopped_threads() noexcept
    : records(static_cast<record*>(
          VirtualAlloc(nullptr, most * sizeof(record), MEM_RESERVE, PAGE_READWRITE))) {}

stopped_threads::~stopped_threads() {
  resume();
  VirtualFree(records, 0, MEM_RELEASE);
}

// Repeats from the start until no new thread appears: a thread whose creator was stopped
// while creating it would run as soon as the locks are free.
bool stopped_threads::stop_all_but(DWORD one, DWORD other) noexcept {
  auto found = outcome::is_new;
  while (found == outcome::is_new) {
    auto const first = count.load();
    found = suspend_new_ones(one, other);
    for (auto i = first; i != count; ++i)
      if (records[i].is_stopped && !stands(records[i])) return false;
  }
  return found == outcome::nobody_new;
}

// Not all locks can be taken before the stop: a thread that waits for one of those may own
// another one of the platform's. So while a probe does not get through, threads in the
// middle of the platform's code run on for a moment, one at a time.
bool stopped_threads::release_locks(DWORD one, DWORD other,
                                    std::array<void*, 2> const& heaps) noexcept {
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

void stopped_threads::resume() noexcept {
  for (auto left = count.exchange(0); left != 0; --left) {
    auto const& each = records[left - 1];
    if (each.is_stopped) ResumeThread(each.thread);
    CloseHandle(each.thread);
  }
}

bool stopped_threads::knows(DWORD id) const noexcept {
  for (std::size_t i = 0; i != count; ++i)
    if (records[i].id == id) return true;
  return false;
}

// Goes through the list of threads once.
stopped_threads::outcome stopped_threads::suspend_new_ones(DWORD one, DWORD other) noexcept {
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

// False if the thread runs on.
bool stopped_threads::suspend(HANDLE thread, DWORD id) noexcept {
  if (count == most || !VirtualAlloc(records + count, sizeof *records, MEM_COMMIT, PAGE_READWRITE))
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
bool stopped_threads::stands(record& each) noexcept {
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

void stopped_threads::move_on(probe const& attempt) noexcept {
  for (std::size_t i = 0; i != count && !attempt.is_through(0); ++i) {
    auto& each = records[i];
    if (!each.is_stopped || each.is_held_by_others || !waits_inside(each.thread)) continue;
    ResumeThread(each.thread);
    attempt.is_through(1);
    each.is_held_by_others = SuspendThread(each.thread) != 0;
    stands(each);
  }
}

}  // namespace velt::detail
