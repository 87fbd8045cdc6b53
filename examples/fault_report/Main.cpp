// Lets five things go wrong and prints what a handler sees of each: the values of
// the exception, with the stack and the path of the dump. The functions that fail are
// in Service.cpp, the handler is in Handling.cpp.
//
// Status: 0, or 1 if something did not go wrong, or 2 if the folder could not be
// used, the report could not be written, or the command was wrong.
#include <windows.h>

#include <string>
#include <vector>

#include "Handling.h"
#include "Service.h"
#include "examples/typed_values/Terminal.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/faults/StructuredException.h"
#include "velt/text/Encoding.h"
#include "velt/text/Numbers.h"

namespace {

wchar_t const usage[] = L"usage: fault_report [--help] [FOLDER]";

wchar_t const help[] =
    L"\n\n"
    L"Lets five things go wrong and prints what a handler sees of each. Works in FOLDER\n"
    L"(fault_report if none is named), which is made if need be; dumps are written to\n"
    L"its folder Dumps.\n";

std::string count_nuts() { return itoa(stock_of(find_article("nuts"))); }
std::string lay_out_list() { return itoa(pages(660, 0)); }
std::string look_at_journal() { return ui64toa(size_of(L"yesterday.journal")); }
std::string open_ports() { return itoa(second_port(8080.0)); }
std::string file_list() { return year_in("list"); }

constexpr piece_of_work works[] = {
    {L"a bad pointer", count_nuts, true},
    {L"a division by zero", lay_out_list, true},
    {L"a file that is not there", look_at_journal, false},
    {L"a value of another type", open_ports, true},
    {L"an exception of the standard library", file_list, true},
};

void set_up_diagnostics() {
  VeltDebugSetup(true);
  // The compiler's run time throws and fails on behalf of its callers.
  SkipModulesForError += ";libgcc_s_seh-1;libstdc++-6;msvcrt";
  redirect_structured_exceptions();
}

int mistake(std::wstring const& reason) {
  complain(L"fault_report: " + reason + L"; " + usage);
  return 2;
}

bool enter(std::wstring const& folder) {
  if (!CreateDirectoryW(folder.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS)
    return false;
  return SetCurrentDirectoryW(folder.c_str());
}

// Not inlined, or the stacks would show the name and a line of its caller.
[[gnu::noinline]] int run(std::vector<std::wstring> const& arguments) {
  if (arguments.size() > 1) return mistake(L"more than one folder");
  std::wstring const folder = arguments.empty() ? L"fault_report" : arguments[0];
  if (folder == L"--help" || folder == L"-h")
    return write(stream::output, std::wstring(usage) + help), 0;
  if (folder.starts_with(L'-')) return mistake(L"unknown option '" + folder + L"'");
  if (!enter(folder)) {
    complain(L"fault_report", ESystemException(GetLastError(), {"File", folder}));
    return 2;
  }

  set_up_diagnostics();
  bool all_failed = true;
  for (auto const& work : works) {
    if (attempt(work)) continue;
    complain(L"fault_report: " + std::wstring(work.failure) + L": nothing went wrong");
    all_failed = false;
  }
  write(stream::output,
        L'\n' + itow(int(dumps().size())) + L" dumps are in " + folder + L"/Dumps.\n");
  return all_failed ? 0 : 1;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  try {
    return run({arguments + 1, arguments + count});
  } catch (EGeneric& error) {
    error.cancel_minidump();
    complain(L"fault_report", error);
  } catch (std::exception const& error) {
    complain(L"fault_report: " + as_wstring(std::string(error.what())));
  }
  return 2;
}
