#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "bench/Growth.h"
#include "bench/Harness.h"
#include "bench/Rows.h"
#include "bench/Sizes.h"
#include "velt/diagnostics/Settings.h"

namespace {

using bench::Row;
using bench::Verdict;

constexpr char usage[] =
    "Usage: velt_bench [--tsv] [ROW...]\n"
    "       velt_bench [--tsv] --sizes | --growth\n"
    "       velt_bench --list | --help\n"
    "\n"
    "Measures velt beside its peers, all rows or those named, and prints the median\n"
    "times of one operation and their ratio. \"ok\" means that the ratio is within its\n"
    "goal, \"short\" that it is not; a peer without a goal is \"shown\".\n"
    "\n"
    "  --tsv    tab-separated, one line for each row and peer: name, ns of velt, peer,\n"
    "           ns of peer, ratio, goal, verdict\n"
    "  --growth how the time of some operations grows with their work: the times and the\n"
    "           exponent of each series. \"ok\" means at most 1.1. With --tsv: series, work,\n"
    "           ns, exponent, exponent at the end, verdict\n"
    "  --sizes  only the sizes of the types, which otherwise follow the whole table\n"
    "  --list   the names of the rows\n"
    "\n"
    "Status: 0, whatever the verdicts; 2 for a wrong option or row.\n";

std::vector<Row> all_rows() {
  std::vector<Row> all;
  for (auto const rows : {bench::machine_rows, bench::value_rows, bench::text_rows,
                          bench::time_rows, bench::exception_rows, bench::lock_rows,
                          bench::debug_rows, bench::os_rows, bench::diagnostics_rows,
                          bench::thread_rows, bench::pool_rows, bench::loading_rows})
    std::ranges::move(rows(), std::back_inserter(all));
  return all;
}

struct Options {
  bool tab_separated = false, sizes = false, growth = false, list = false, help = false;
  std::vector<std::string_view> rows;
  std::string mistake;  // what is wrong with the command line, if anything
};

Options read(std::vector<std::string_view> const& arguments, std::vector<Row> const& rows) {
  Options options;
  for (auto const argument : arguments) {
    if (argument == "--tsv")
      options.tab_separated = true;
    else if (argument == "--sizes")
      options.sizes = true;
    else if (argument == "--growth")
      options.growth = true;
    else if (argument == "--list")
      options.list = true;
    else if (argument == "--help" || argument == "-h")
      options.help = true;
    else if (argument.starts_with('-'))
      options.mistake = "unknown option '" + std::string(argument) + "' (see --help)";
    else if (std::ranges::find(rows, argument, &Row::name) == rows.end())
      options.mistake = "unknown row '" + std::string(argument) + "' (see --list)";
    else
      options.rows.push_back(argument);
  }
  return options;
}

// One line of the table.
struct Line {
  char const* row;
  double velt;
  char const* peer;
  double peer_time;
  double goal;
};

char const* word(Verdict verdict) {
  switch (verdict) {
    case Verdict::ok: return "ok";
    case Verdict::missed: return "short";
    default: return "shown";
  }
}

void print_tab_separated(Line const& line) {
  auto const [ratio, verdict] = bench::compare(line.velt, line.peer_time, line.goal);
  std::printf("%s\t%.2f\t%s\t%.2f\t%.4f\t", line.row, line.velt, line.peer, line.peer_time, ratio);
  if (verdict == Verdict::shown)
    std::printf("-");
  else
    std::printf("%.2f", line.goal);
  std::printf("\t%s\n", word(verdict));
}

constexpr char heading[] =
    "row                   ns velt  peer                     ns peer  ratio  goal\n";

// In eight columns.
void print_time(double nanoseconds) {
  std::printf(nanoseconds < 1e6 ? "%8.1f" : "%8.3g", nanoseconds);
}

void print_for_people(Line const& line, bool first_of_row) {
  auto const [ratio, verdict] = bench::compare(line.velt, line.peer_time, line.goal);
  std::printf("%-21s", first_of_row ? line.row : "");
  if (first_of_row)
    print_time(line.velt);
  else
    std::printf("%8s", "");
  std::printf("  %-24s", line.peer);
  print_time(line.peer_time);
  std::printf("%7.3f", ratio);
  if (verdict == Verdict::shown)
    std::printf("     -");
  else
    std::printf("%6.2f", line.goal);
  std::printf(" %s\n", word(verdict));
}

void run(Row const& row, bool tab_separated) {
  auto const timing = bench::measure(row);
  for (std::size_t i = 0; i < row.peers.size(); ++i) {
    auto const& peer = row.peers[i];
    Line const line{row.name.c_str(), timing.velt, peer.name, timing.peers[i], peer.goal};
    if (tab_separated)
      print_tab_separated(line);
    else
      print_for_people(line, i == 0);
  }
  std::fflush(stdout);
}

void run_rows(std::vector<Row> const& rows, Options const& options) {
  bool const all = options.rows.empty();
  if (!options.tab_separated) std::printf("%s", heading);
  for (auto const& row : rows)
    if (all || std::ranges::find(options.rows, row.name) != options.rows.end())
      run(row, options.tab_separated);
  if (all && !options.tab_separated) {
    std::printf("\n");
    bench::print_sizes(false);
  }
}

}  // namespace

int main(int count, char** arguments) {
  // Rows that throw are about the throw, not about a dump of it.
  SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = false;
  auto const rows = all_rows();
  auto const options = read({arguments + 1, arguments + count}, rows);
  if (!options.mistake.empty()) {
    std::fprintf(stderr, "velt_bench: %s\n", options.mistake.c_str());
    return 2;
  }
  if (options.help)
    std::printf("%s", usage);
  else if (options.list)
    for (auto const& row : rows) std::printf("%s\n", row.name.c_str());
  else if (options.sizes)
    bench::print_sizes(options.tab_separated);
  else if (options.growth)
    bench::print_growth(options.tab_separated);
  else
    run_rows(rows, options);
  return 0;
}
