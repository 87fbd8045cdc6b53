// Loads a settings file into a property list, lets threads read and write the list at
// the same time while they log, and tells how busy its lock was. Look at Loading.cpp,
// Work.cpp and Log.cpp.
//
// Status: 0 if all is well, 1 if a write was lost or a line of the log is broken, 2 if a
// file was bad, output could not be written, or the command was wrong.
#include <windows.h>

#include <future>
#include <string>
#include <vector>

#include "Loading.h"
#include "Log.h"
#include "Work.h"
#include "examples/typed_values/Terminal.h"
#include "velt/diagnostics/Settings.h"
#include "velt/text/Encoding.h"
#include "velt/text/Format.h"
#include "velt/text/Numbers.h"

namespace {

wchar_t const usage[] = L"usage: shared_settings [--help] [--milliseconds N] [--log LOG] [FILE]";

wchar_t const help[] =
    L"\n\n"
    L"Loads a settings file (examples/service.settings if none is named), lets threads\n"
    L"read and write the settings for a second, or for N milliseconds, and tells how\n"
    L"busy their lock was. The threads log to standard output and to LOG, a file that\n"
    L"is made anew (shared_settings.log if none is named).\n";

constexpr int longest_run = 60'000;
constexpr int readers = 3;
constexpr int writers = 2;

struct options {
  bool help = false;
  std::wstring file = L"examples/service.settings";
  std::wstring log = L"shared_settings.log";
  int milliseconds = 1000;
};

EGeneric mistake(std::wstring const& reason) { return EGeneric({"Text", reason + L"; " + usage}); }

int milliseconds_in(std::wstring const& text) {
  int const number = wtoi(text);
  if (itow(number) != text || number < 1 || number > longest_run)
    throw mistake(L"not a number from 1 to " + itow(longest_run) + L": '" + text + L"'");
  return number;
}

options parse(std::vector<std::wstring> const& arguments) {
  options result;
  bool file_is_named = false;
  for (auto argument = arguments.begin(); argument != arguments.end(); ++argument) {
    auto const& word = *argument;
    auto const value = [&] {
      if (++argument == arguments.end()) throw mistake(L"nothing behind " + word);
      return *argument;
    };
    if (word == L"--help" || word == L"-h") {
      result.help = true;
    } else if (word == L"--log") {
      result.log = value();
    } else if (word == L"--milliseconds") {
      result.milliseconds = milliseconds_in(value());
    } else if (word.starts_with(L'-')) {
      throw mistake(L"unknown option '" + word + L"'");
    } else if (file_is_named) {
      throw mistake(L"more than one file");
    } else {
      result.file = word;
      file_is_named = true;
    }
  }
  return result;
}

// If a thread fails, throws its exception after all threads have ended.
std::vector<worker> run_workers(std::vector<setting> const& items, shared_settings& settings,
                                double seconds) {
  std::vector<std::future<worker>> running;
  _pcounter_t const watch;
  auto const start = [&](task does, std::string const& name) {
    running.push_back(std::async(std::launch::async, work, worker{does, name}, items,
                                 std::ref(settings), watch, seconds));
  };
  for (int i = 1; i <= readers; ++i) start(task::read, format_string("reader %d", i));
  for (int i = 1; i <= writers; ++i) start(task::write, format_string("writer %d", i));

  std::vector<worker> ended;
  for (auto& each : running) ended.push_back(each.get());
  return ended;
}

int operations(std::vector<worker> const& workers, task of) {
  int sum = 0;
  for (auto const& each : workers)
    if (each.does == of) sum += each.operations;
  return sum;
}

line_counts lines(std::vector<worker> const& workers) {
  line_counts counts;
  for (auto const& each : workers) counts[each.name] = each.lines;
  return counts;
}

void say(std::wstring const& line) { write(stream::output, line + L'\n'); }

bool report_revision(int reached, int writes) {
  say(L"revision " + itow(reached) + L": " +
      (reached == writes ? L"no write lost" : itow(writes - reached) + L" writes lost"));
  return reached == writes;
}

bool report_log(std::wstring const& path, line_counts const& written) {
  auto file = open_file(path, GENERIC_READ, OPEN_EXISTING);
  int const broken = broken_lines(read_to_end(file), written);
  int all = 0;
  for (auto const& [name, count] : written) all += count;
  say(path + L": " + itow(all) + L" lines, " + (broken ? itow(broken) : L"none") + L" broken");
  return broken == 0;
}

int run(std::vector<std::wstring> const& arguments) {
  auto const chosen = parse(arguments);
  if (chosen.help) return write(stream::output, std::wstring(usage) + help), 0;

  // The file stays open, so that the log cannot be the same file.
  auto file = open_file(chosen.file, GENERIC_READ, OPEN_EXISTING);
  auto const items = load_settings(file, chosen.file);
  shared_settings settings;
  fill(settings, items);
  settings.log = new_log(chosen.log);

  auto const workers = run_workers(items, settings, chosen.milliseconds / 1000.0);
  double const busy = settings.timed_lock.get_busy();
  settings.log.ClearWriters();  // closes the file

  int const reads = operations(workers, task::read), writes = operations(workers, task::write);
  say(itow(reads) + L" reads and " + itow(writes) + L" writes by " + itow(int(workers.size())) +
      L" threads in " + itow(chosen.milliseconds) + L" ms");
  say(L"the lock was busy " + itow(int(busy * 100 + 0.5)) + L" % of the time");
  bool const all_kept = report_revision(revision(settings), writes);
  bool const all_whole = report_log(chosen.log, lines(workers));
  return all_kept && all_whole ? 0 : 1;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  // Failures come from the files and the command, not from defects.
  SaveMiniDumpOnCppException = false;
  try {
    return run({arguments + 1, arguments + count});
  } catch (EGeneric const& error) {
    complain(L"shared_settings", error);
  } catch (std::exception const& error) {
    complain(L"shared_settings: " + as_wstring(std::string(error.what())));
  }
  return 2;
}
