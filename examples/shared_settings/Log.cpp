#include "Log.h"

#include <windows.h>

#include <algorithm>
#include <sstream>
#include <utility>

#include "Loading.h"
#include "TerminalWriter.h"
#include "velt/debug/Writers.h"
#include "velt/text/Format.h"
#include "velt/text/Numbers.h"

namespace {

// Is the line whole, and is its number higher than the thread's last one?
bool follows(std::string const& line, line_counts& last) {
  std::string const behind_name = " line ";
  auto const place = line.find(behind_name);
  auto const thread = last.find(line.substr(0, place));
  if (thread == last.end()) return false;
  int const number = atoi(line.substr(place + behind_name.size()));
  auto const beginning = format_string("%s line %d: ", thread->first.c_str(), number);
  if (!line.starts_with(beginning) || !line.ends_with(".\r")) return false;
  return number > std::exchange(thread->second, number);
}

}  // namespace

// A writer does not report that it cannot open its file, so a TFile opens it first.
TDebugStream new_log(std::wstring const& path) {
  open_file(path, GENERIC_WRITE, CREATE_ALWAYS);
  return TDebugStream(MakeCounted<TPermanentFileWriter>(path.c_str()),
                      MakeCounted<TerminalWriter>());
}

void log_line(TDebugStream& log, std::string const& name, int number, std::wstring const& text) {
  log << name << " line " << number << ": " << text << ".\n";
}

int broken_lines(std::string const& content, line_counts const& written) {
  int expected = 0, found = 0, good = 0;
  line_counts last;
  for (auto const& [name, count] : written) {
    expected += count;
    last[name] = 0;
  }
  std::istringstream lines(content);
  for (std::string line; std::getline(lines, line); ++found)
    if (follows(line, last)) ++good;
  return std::max(expected, found) - good;
}
