// Lets two threads dead-lock while a third one computes, notices that there is no
// progress, prints what every thread is doing, and interrupts the threads. The mistake
// is in Work.cpp.
//
// Status: 0, or 1 if the threads did not hang or could not be interrupted, or 2 if
// the report could not be written or the command was wrong.
#include <windows.h>

#include <atomic>
#include <string>
#include <vector>

#include "Work.h"
#include "examples/typed_values/Terminal.h"
#include "velt/diagnostics/DebugSnapshot.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/symbols/Symbols.h"
#include "velt/text/Encoding.h"
#include "velt/text/Numbers.h"
#include "velt/threads/ThreadClass.h"

namespace {

wchar_t const usage[] = L"usage: hang_report [--help]";

wchar_t const help[] =
    L"\n\n"
    L"Lets two threads wait for each other's lock for ever while a third computes, and\n"
    L"prints after a second what every thread is doing. Then all are interrupted.\n";

constexpr unsigned int patience = 1000;       // milliseconds without progress are a hang
constexpr unsigned int time_to_end = 10'000;  // milliseconds

class worker final : public TThreadClass {
public:
  worker(wchar_t const* its_name, void (*its_work)(shop&), shop& its_place)
      : name(its_name), work(its_work), place(its_place) {
    StartThread();
    begun.WaitForSignal();
  }
  worker(worker const&) = delete;
  ~worker() { interrupt(); }

  void ThreadBody() override {
    begun.Set();
    try {
      for (;;) {
        work(place);
        ++done;
        Pause();
      }
    } catch (EThreadInterrupt const&) {
      was_interrupted = true;
      throw;
    }
  }

  // Does nothing if the thread has ended. Kills a thread that does not reach an
  // alertable wait in time.
  void interrupt() { InterruptThread(0, time_to_end); }

  wchar_t const* const name;
  std::atomic<int> done = 0;
  std::atomic<bool> was_interrupted = false;

private:
  void (*const work)(shop&);
  shop& place;
  TEvent begun;
};

// Holds the engine for as long as the program runs. Loading it during a hang might wait
// for one of the threads that hang.
struct engine_from_the_start {
  bool const held = SymInitialize();
  ~engine_from_the_start() {
    if (held) SymCleanup();
  }
};

bool is_free(TMutex& lock) {
  if (!lock.Lock(0)) return false;
  lock.Unlock();
  return true;
}

std::wstring account_of(worker const& each) {
  return padded(each.name, 11) + L"done " + itow(each.done) + L" times, then " +
         (each.was_interrupted ? L"interrupted" : L"killed") + L'\n';
}

int report_hang() {
  engine_from_the_start const engine;
  shop all;
  worker workers[] = {
      {L"sell", sell, all}, {L"take_back", take_back, all}, {L"forecast", forecast, all}};
  Sleep(patience);
  if (all.sales + all.returns != 0) {
    complain(L"hang_report: the threads do not hang");
    return 1;
  }
  write(stream::output, L"Nothing was sold or taken back for a second.\n");
  write(stream::output, as_wstring(TakeDebugSnapshot()));

  bool all_well = true;
  for (auto& each : workers) {
    each.interrupt();
    write(stream::output, account_of(each));
    all_well &= each.was_interrupted;
  }
  all_well &= is_free(all.stock) && is_free(all.accounts);
  write(stream::output, all_well ? L"Both locks are free.\n" : L"A lock is lost.\n");
  return all_well ? 0 : 1;
}

int run(std::vector<std::wstring> const& arguments) {
  if (arguments.empty()) return report_hang();
  if (arguments[0] == L"--help" || arguments[0] == L"-h")
    return write(stream::output, std::wstring(usage) + help), 0;
  complain(L"hang_report: unexpected argument '" + arguments[0] + L"'; " + usage);
  return 2;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  try {
    return run({arguments + 1, arguments + count});
  } catch (EGeneric const& error) {
    complain(L"hang_report", error);
  } catch (std::exception const& error) {
    complain(L"hang_report: " + as_wstring(std::string(error.what())));
  }
  return 2;
}
