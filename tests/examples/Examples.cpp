// The examples, run as a user runs them: each once as it is meant to be used and
// once wrongly.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/os/ScratchPrinter.h"
#include "tests/support/ChildProcess.h"
#include "velt/text/Encoding.h"
#include "velt/text/Splitting.h"

namespace {

using lines = std::vector<std::string>;

std::filesystem::path const source = VELT_SOURCE_DIR;
std::wstring const settings = L'"' + (source / "examples/service.settings").native() + L'"';
std::wstring const papers =
    L'"' + (source / "examples/road_of_one_event/papers").native() + L'"';

// The words of a command are divided as the library does it.
struct Row {
  std::wstring command;
  unsigned long status;
  lines output;             // some of its lines, where * stands for anything
  char const* errors = "";  // all of it
};

// Those that take longest begin first.
Row const rows[] = {
    {L"fault_report größe",
     0,
     {"Text: Access Violation (read from 0x20)",
      "AddressName: fault_report!stock_of*[Service.cpp#*]", "Text: Divide by Zero",
      "-> fault_report!pages*[Service.cpp#*]", "a file that is not there ─*─ ESystemException",
      "-> fault_report!size_of*[Service.cpp#*]",
      "MiniDump: Dumps\\fault_report_EBadCastException_20*.dmp",
      "an exception of the standard library ─*─ std::out_of_range", "4 dumps are in größe/Dumps."}},
    {L"road_of_one_event " + papers,
     0,
     {"-> road_of_one_event!cents_of*[Prices.cpp#*]", "The dump has * KB.",
      "(!) Thread runaway with exception EGeneric:"}},
    {L"hang_report",
     0,
     {"-> hang_report!sell*[Work.cpp#*]", "-> hang_report!take_back*[Work.cpp#*]",
      "-> velt!TMutex::Lock*", "sell       done 0 times, then interrupted", "Both locks are free."}},
    {L"shared_settings --milliseconds 300 " + settings,
     0,
     {"reader 1 line 1: service.name = Größenarchiv Süd in revision *.",
      "the lock was busy * % of the time", "revision *: no write lost",
      "shared_settings.log: * lines, none broken"}},
    {L"apartment_guard sta", 0, {"inside:         in one of its own", "afterwards:     in no*"}},
    {L"apartment_guard mta", 0, {"inside:         in the apartment*", "afterwards:     in no*"}},
    {L"apartment_guard both",
     2,
     {},
     "apartment_guard: not a kind of apartment: 'both'; usage: apartment_guard sta | mta\n"},
    {L"child_process 300 shared_settings --milliseconds 60000 " + settings,
     1,
     {"*killed after 300 ms"}},
    {L"child_process 20000 apartment_guard both", 1, {"ended with 2"}, "*"},
    {L"child_process 1 no-such-program", 2, {}, "child_process: File not found.\n"},
    {L"com_stream", 0, {"menu", "  soup", "    rice"}},
    {L"com_stream no.xml", 2, {}, "com_stream: cannot open 'no.xml'\n"},
    {L"fault_report no/such", 2, {}, "fault_report: no/such: Path not found.\n"},
    {L"hang_report now",
     2,
     {},
     "hang_report: unexpected argument 'now'; usage: hang_report [--help]\n"},
    {L"mailslot_log 3", 0, {"* is at step 1", "* is at step 3"}},
    {L"mailslot_log 0", 2, {}, "usage: mailslot_log PROCESSES, a number from 1 to 9\n"},
    {L"printer_list", 0, {"velt test printer * velt test driver"}},
    {L"printer_list none", 2, {}, "printer_list: none: Invalid printer name.\n"},
    {L"road_of_one_event .", 2, {}, "road_of_one_event: .: no orders and no stock\n"},
    {L"shared_mapping \"grün und blau\"", 0, {"GRÜN UND BLAU"}},
    {L"shared_mapping", 2, {}, "usage: shared_mapping TEXT\n"},
    {L"shared_settings no", 2, {}, "shared_settings: no: File not found.\n"},
    {L"shop",
     0,
     {"rope: 7.5", "AddressName: shop!worth*[shop.cpp#14]", "Goods: sail", "tar: 5.25"}},
    {L"typed_values " + settings, 0, {"* settings"}},
    {L"typed_values no", 2, {}, "typed_values: no: No such file or directory\n"},
};

bool matches(char const* text, char const* pattern) {
  for (; *pattern != '*'; ++text, ++pattern)
    if (*text != *pattern || !*text) return *text == *pattern;
  return matches(text, pattern + 1) || (*text && matches(text + 1, pattern));
}

// What is the same in each run of each build: numbers and offsets are not.
std::string form_of(std::string const& line) {
  auto const form = std::regex_replace(line, std::regex("\\+[0-9a-f]+(?=\\[)| +$"), "");
  return std::regex_replace(form, std::regex("-?[0-9][0-9a-fx_]*"), "#");
}

// Two at a time, one for each core of a small machine.
std::vector<velt_test::finished_process> run_all() {
  std::vector<velt_test::finished_process> results(std::size(rows));
  std::atomic<size_t> next = 0;
  auto const run_some = [&] {
    for (size_t i; (i = next++) < results.size();) {
      std::vector<std::wstring> words;
      divide_string(rows[i].command, words, L" ");
      auto const program = words[0];
      words.erase(words.begin());
      velt_test::scratch_folder const scratch;
      results[i] = velt_test::run_program(program + L".exe", words, scratch.path());
    }
  };
  {
    std::jthread const first(run_some), second(run_some);
  }
  return results;
}

}  // namespace

TEST(Examples, PrintWhatTheyAreFor) {
  velt_test::ScratchPrinter const printer;
  auto const results = run_all();
  lines printed;
  for (size_t i = 0; i != results.size(); ++i) {
    auto const& [command, status, output, errors] = rows[i];
    auto const& result = results[i];
    SCOPED_TRACE(as_string(command) + " printed\n" + result.output);
    EXPECT_EQ(result.status, status);
    EXPECT_TRUE(matches(result.errors.c_str(), errors)) << result.errors;
    EXPECT_EQ(result.output.empty(), output.empty());
    auto const found = velt_test::lines_of(result.output);
    for (auto const& each : output)
      EXPECT_TRUE(std::ranges::any_of(found, [&](auto const& line) {
        return matches(line.c_str(), each.c_str());
      })) << each;
    std::ranges::transform(found, std::back_inserter(printed), form_of);
  }

  // Transcripts on the pages; which frames a stack has depends on the build.
  auto const readme = velt_test::content_of(source / "README.md");
  auto const page = velt_test::content_of(source / "docs/examples.md");
  auto const section = [](std::string const& text, char const* begin) {
    auto const first = text.find(begin);
    return text.substr(first, text.find("\n## ", first + 1) - first);
  };
  bool is_source = false;
  for (auto const& line :
       velt_test::lines_of(section(readme, "# velt") + section(page, "## typed_values") +
                           section(page, "## road_of_one_event"))) {
    is_source ^= line.starts_with("```");
    if (is_source || !line.starts_with("    ") || line.starts_with("    ->")) continue;
    EXPECT_TRUE(std::ranges::count(printed, form_of(line.substr(4)))) << "not printed: " << line;
  }
  EXPECT_NE(readme.find(velt_test::content_of(source / "examples/shop/shop.cpp")), readme.npos);
}
