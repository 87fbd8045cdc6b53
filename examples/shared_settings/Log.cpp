#include "Log.h"

#include <windows.h>

#include <algorithm>
#include <sstream>

#include "Loading.h"
#include "examples/typed_values/Terminal.h"
#include "velt/debug/PermanentFileWriter.h"
#include "velt/text/Encoding.h"
#include "velt/text/Format.h"

namespace {

// Unlike a TConsoleWriter it also writes where standard output is a pipe. If that
// is closed the stream drops the writer, and the file still gets its lines.
class TerminalWriter : public TStreamWriter {
public:
  void StreamWriteString(char const* text, unsigned __int64 size) override {
    write(stream::output, as_wstring({text, size}));
  }
};

// Counts the line if it is whole and the next of its thread.
bool count_line(line_counts& counts, std::string const& line) {
  auto const thread = counts.find(line.substr(0, line.find(" line ")));
  if (thread == counts.end()) return false;
  auto& [name, count] = *thread;
  auto const beginning = format_string("%s line %d: ", name.c_str(), count + 1);
  bool const whole = line.starts_with(beginning) && line.ends_with(".\r");
  if (whole) ++count;
  return whole;
}

}  // namespace

// A writer tells nobody that it could not open its file, a TFile does.
TDebugStream new_log(std::wstring const& path) {
  open_file(path, GENERIC_WRITE, CREATE_ALWAYS);
  return TDebugStream(MakeCounted<TPermanentFileWriter>(path.c_str()),
                      MakeCounted<TerminalWriter>());
}

void log_line(TDebugStream& log, std::string const& name, int number, std::wstring const& text) {
  log << name << " line " << number << ": " << text << ".\n";
}

int broken_lines(std::string const& content, line_counts const& written) {
  line_counts found = written;
  for (auto& [name, count] : found) count = 0;
  int broken = 0;
  std::istringstream lines(content);
  for (std::string line; std::getline(lines, line);)
    if (!count_line(found, line)) ++broken;
  for (auto const& [name, count] : written) broken += std::max(0, count - found[name]);
  return broken;
}
