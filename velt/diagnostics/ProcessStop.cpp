#include "velt/diagnostics/ProcessStopInternal.h"

#include <windows.h>

#include <array>
#include <atomic>
#include <iterator>
#include <utility>

#include "velt/base/LibraryReferenceInternal.h"
#include "velt/base/LoadOrderInternal.h"
#include "velt/diagnostics/ProcessLocksInternal.h"
#include "velt/diagnostics/StoppedThreadsInternal.h"
#include "velt/symbols/LoaderLockInternal.h"
#include "velt/symbols/SymbolsInternal.h"

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace velt::detail {
namespace {

constexpr DWORD longest_stop = 30'000;  // milliseconds, as all times here
constexpr DWORD patience = 1000;        // with the platform's locks

// How long a thread may take to begin.
constexpr DWORD pause = 10;
constexpr int tries = 500;

VELT_LOAD_STEP(program_name_found) struct path_of_module {
  path_of_module() noexcept {
    GetModuleFileNameW(reinterpret_cast<HMODULE>(&__ImageBase), text, std::size(text));
  }
  wchar_t text[1024];
} own_path;

HANDLE handle_of_calling_thread() noexcept {
  HANDLE handle = nullptr;
  DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &handle,
                  SYNCHRONIZE, FALSE, 0);
  return handle;
}

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
