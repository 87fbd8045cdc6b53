#include <windows.h>

#include <date/date.h>

#include <chrono>
#include <ctime>
#include <sstream>

#include "bench/Rows.h"
#include "velt/time/Stopwatches.h"
#include "velt/time/Time.h"

namespace bench {
namespace {

// 2004-02-29 12:30:45, as a count and in the two broken-down forms.
constexpr __int64 moment = 1078057845;
_time_t velt_time(moment);
date::sys_seconds peer_time{std::chrono::seconds(moment)};
SYSTEMTIME system_fields{2004, 2, 0, 29, 12, 30, 45, 0};
tm run_time_fields = _time_t(moment).gmtime();

_pcounter_t watch;
LARGE_INTEGER start;

date::sys_seconds round_trip_by_peer(date::sys_seconds time) {
  std::istringstream text(date::format("%FT%T", time));
  date::sys_seconds result;
  text >> date::parse("%FT%T", result);
  return result;
}

__int64 count_since_start() {
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  return now.QuadPart - input(start).QuadPart;
}

}  // namespace

std::vector<Row> time_rows() {
  return {
      {"time_from_utc_fields",
       loop([] { keep(_time_t::mktime(input(system_fields), true)); }),
       {{"_mkgmtime64", 1.5, loop([] { keep(_mkgmtime64(&input(run_time_fields))); })}}},

      {"time_iso_round_trip",
       loop([] { keep(_time_t::mktime(input(velt_time).iso8601time())); }),
       {{"date::format, parse", 0.2, loop([] { keep(round_trip_by_peer(input(peer_time))); })}}},

      {"stopwatch",
       loop([] { keep(input(watch).get_elapsed_ticks()); }),
       {{"QueryPerformanceCounter", 1.05, loop([] { keep(count_since_start()); })}}},
  };
}

}  // namespace bench
