#include "bench/Growth.h"

#include <windows.h>

#include <comutil.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/Harness.h"
#include "bench/Threads.h"
#include "velt/debug/DebugStream.h"
#include "velt/diagnostics/DebugSnapshot.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/locks/MultiLock.h"
#include "velt/symbols/Symbols.h"
#include "velt/threads/ThreadPool.h"
#include "velt/value/PropertyList.h"

namespace bench {
namespace {

// The nanoseconds of one pass, without its preparation.
template <class Pass>
double time_of(Pass const& pass) {
  using clock = std::chrono::steady_clock;
  auto const start = clock::now();
  pass();
  return std::chrono::duration<double, std::nano>(clock::now() - start).count();
}

// Two workers run them while they are added.
double empty_jobs(int count) {
  struct Empty : IThreadJob {
    void Run(SmartPtr<IThreadContext> const&) override {}
  };
  static auto const& pool = *new auto(CreateNewThreadPool(2, 2, 0, 2'000'000));
  SmartPtr<IThreadJob> const job = MakeCounted<Empty>();
  return time_of([&] {
    for (int i = 0; i != count; ++i) pool->AddJob(job);
    pool->WaitForIdle(-1);
  });
}

// Each thread makes the same number of holds, one in a hundred of them for writing.
double threads_on_lock(int count) {
  constexpr std::uint64_t holds_of_each = 50'000;
  static auto& lock = *new TMultiLock;
  on_threads(count, [](int, std::uint64_t) {}, 0);
  return time_of([&] {
    on_threads(count, [](int index, std::uint64_t holds) {
      for (auto turn = static_cast<std::uint64_t>(index) * 7; holds != 0; --holds) {
        turn++ % 100 == 0 ? lock.WriteLock() : lock.ReadLock();
        work_shortly();
        lock.Unlock();
      }
    }, holds_of_each);
  });
}

// Each is put once and read once.
double properties(int count) {
  std::vector<_bstr_t> names;
  for (int i = 0; i != count; ++i)
    names.emplace_back(("Settings.Section." + std::to_string(i)).c_str());
  TPropertyList list;
  return time_of([&] {
    for (int i = 0; i != count; ++i) list.PutProperty(names[static_cast<std::size_t>(i)], i);
    for (auto const& name : names) keep(list.GetProperty(name));
  });
}

[[gnu::noinline]] void call_below(int depth, void (*function)(void*), void* argument) {
  if (depth != 0)
    call_below(depth - 1, function, argument);
  else
    function(argument);
  keep(depth);
}

double frames_of_stack(int count) {
  std::vector<unsigned __int64> frames(static_cast<std::size_t>(count));
  return time_of([&] {
    call_below(count, [](void* found) {
      auto& all = *static_cast<std::vector<unsigned __int64>*>(found);
      auto const most = static_cast<unsigned>(all.size());
      if (StackWalk(all.data(), nullptr, GetCurrentThread(), 0, most) != most) std::abort();
    }, &frames);
  });
}

// Of an exception that is thrown, caught and printed.
double values_in_exception(int count) {
  std::vector<std::string> names;
  for (int i = 0; i != count; ++i) names.push_back("Value" + std::to_string(i));
  return time_of([&] {
    try {
      EGeneric error;
      for (auto const& name : names) error.put_value(name, 42);
      throw error;
    } catch (EGeneric const& error) {
      keep(*error.what());
    }
  });
}

// Each waits below some frames of its own.
double threads_in_snapshot(int count) {
  HANDLE const end = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  std::vector<HANDLE> threads;
  for (int i = 0; i != count; ++i)
    threads.push_back(CreateThread(nullptr, 0x10000, [](void* event) -> DWORD {
      call_below(5, [](void* its_end) { WaitForSingleObject(its_end, INFINITE); }, event);
      return 0;
    }, end, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr));
  double const time = time_of([] { keep(TakeDebugSnapshot()); });
  SetEvent(end);
  for (HANDLE const thread : threads) {
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
  }
  CloseHandle(end);
  return time;
}

// To a stream with time stamps.
double lines_in_text(int count) {
  struct Dropping : TStreamWriter {
    void StreamWriteString(char const* text, unsigned __int64) override { keep(*text); }
  };
  struct Stamped : TDebugStream {
    Stamped() : TDebugStream(MakeCounted<Dropping>()) { TimeStamps = true; }
  };
  static auto& stream = *new Stamped;
  std::string text;
  for (int i = 0; i != count; ++i) text += "a line of the archive\n";
  return time_of([&] { stream.WriteString(text.data(), text.size()); });
}

// What the time should be proportional to.
enum class Shape { work, work_times_logarithm };

struct Series {
  char const* name;
  Shape shape;
  std::vector<int> works;
  double (*time_of_pass)(int work);
};

std::vector<Series> all_series() {
  using enum Shape;
  return {
      // First, while the process has few threads of its own.
      {"threads in a snapshot", work, {1, 10, 100, 1'000}, threads_in_snapshot},
      {"jobs of a pool", work, {100, 1'000, 10'000, 100'000, 1'000'000}, empty_jobs},
      {"threads on one lock", work, {1, 2, 4, 8, 16, 32, 64}, threads_on_lock},
      {"properties of a list", work_times_logarithm,
       {10, 100, 1'000, 10'000, 100'000, 1'000'000}, properties},
      {"frames of a stack", work, {10, 30, 100, 300, 1'000}, frames_of_stack},
      {"values in an exception", work, {1, 3, 10, 30, 100}, values_in_exception},
      {"lines in one text", work, {10, 100, 1'000, 10'000, 100'000}, lines_in_text},
  };
}

// Passes enough to be safe from interruptions, but for slow ones; their median. The first
// of them warms up.
double time_at(Series const& series, int work) {
  constexpr double enough = 50e6;
  constexpr std::size_t most_passes = 101;
  double spent = series.time_of_pass(work);
  std::vector<double> times;
  if (spent > 10 * enough) return spent;
  while (times.size() < 3 || (spent < enough && times.size() != most_passes)) {
    times.push_back(series.time_of_pass(work));
    spent += times.back();
  }
  auto const middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
  std::nth_element(times.begin(), middle, times.end());
  return *middle;
}

// The slope of the line through the logarithms, from one of the times on.
double exponent(Series const& series, std::vector<double> const& times, std::size_t first = 0) {
  double sum_x = 0, sum_y = 0, sum_xx = 0, sum_xy = 0;
  auto const count = static_cast<double>(times.size() - first);
  for (auto i = first; i != times.size(); ++i) {
    double const work = series.works[i];
    double const share = series.shape == Shape::work ? 1 : std::log2(work);
    double const x = std::log(work), y = std::log(times[i] / share);
    sum_x += x;
    sum_y += y;
    sum_xx += x * x;
    sum_xy += x * y;
  }
  return (count * sum_xy - sum_x * sum_y) / (count * sum_xx - sum_x * sum_x);
}

constexpr double worst_exponent = 1.1;

void print(Series const& series, bool tab_separated) {
  std::vector<double> times;
  for (int const work : series.works) times.push_back(time_at(series, work));
  double const power = exponent(series, times), at_end = exponent(series, times, times.size() - 2);
  char const* const verdict = power <= worst_exponent ? "ok" : "short";
  char const* const factor = series.shape == Shape::work ? "" : " log n";
  if (!tab_separated)
    std::printf("%s: n^%.2f%s, at the end n^%.2f%s, %s\n", series.name, power, factor, at_end,
                factor, verdict);
  for (std::size_t i = 0; i != times.size(); ++i)
    if (tab_separated)
      std::printf("%s\t%d\t%.0f\t%.2f%s\t%.2f%s\t%s\n", series.name, series.works[i], times[i],
                  power, factor, at_end, factor, verdict);
    else
      std::printf("%12d %12.4g ns %10.4g ns each\n", series.works[i], times[i],
                  times[i] / series.works[i]);
  std::fflush(stdout);
}

}  // namespace

void print_growth(bool tab_separated) {
  // For the series of stacks, which then know the names.
  SymInitialize();
  threads_in_snapshot(1);
  for (auto const& series : all_series()) print(series, tab_separated);
}

}  // namespace bench
