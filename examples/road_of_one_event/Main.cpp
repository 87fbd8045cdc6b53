// A service on a pool: the papers of a folder are its jobs. One paper makes its job
// read through a bad pointer, and another is malformed. The log tells what becomes of
// both, and the service goes on. The mistake is in Paper.cpp; the code that learns of
// it is in Jobs.cpp.
//
// Status: 0 if every job has run, good or bad, or 2 if a folder or a paper could not
// be opened, the log could not be written, or the command was wrong.
#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "Jobs.h"
#include "examples/shared_settings/TerminalWriter.h"
#include "examples/typed_values/Terminal.h"
#include "velt/debug/DebugStream.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/text/Encoding.h"
#include "velt/threads/ThreadPool.h"

namespace {

wchar_t const usage[] = L"usage: road_of_one_event [--help] [--work FOLDER] [PAPERS]";

wchar_t const help[] =
    L"\n\n"
    L"Has a pool work on the papers of a folder (examples/road_of_one_event/papers if\n"
    L"none is named), those that end in .order and in .stock, and logs what becomes of\n"
    L"each. Its lines have the form \"goods = quantity\".\n"
    L"\n"
    L"  --work FOLDER  where to work, and to write dumps (road_of_one_event), which is\n"
    L"                 made if need be\n";

constexpr std::wstring_view order_ending = L".order", stock_ending = L".stock";

struct command {
  std::wstring work = L"road_of_one_event";
  std::wstring papers = L"examples/road_of_one_event/papers";
};

ESystemException refusal(std::wstring const& path, DWORD code = GetLastError()) {
  return ESystemException(code, {"File", path});
}

std::vector<std::wstring> names_of_papers(std::wstring const& folder) {
  std::error_code error;
  std::vector<std::wstring> names;
  for (std::filesystem::directory_iterator file(folder, error), end; !error && file != end;
       file.increment(error)) {
    auto const name = file->path().filename().native();
    if (name.ends_with(order_ending) || name.ends_with(stock_ending)) names.push_back(name);
  }
  if (error) throw refusal(folder, static_cast<DWORD>(error.value()));
  if (names.empty()) throw EGeneric({"Text", "no orders and no stock"}, {"File", folder});
  std::ranges::sort(names);
  return names;
}

// Opens all papers before the first job begins.
std::vector<SmartPtr<paper>> open_papers(std::wstring const& folder) {
  std::vector<SmartPtr<paper>> papers;
  for (auto const& name : names_of_papers(folder))
    papers.push_back(MakeCounted<paper>(folder, name));
  return papers;
}

void enter(std::wstring const& folder) {
  if (!CreateDirectoryW(folder.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS)
    throw refusal(folder);
  if (!SetCurrentDirectoryW(folder.c_str())) throw refusal(folder);
}

// Faults get a dump and a stack, and the service's own exceptions get a stack.
void set_up_diagnostics() {
  VeltDebugSetup(true);
  SaveMiniDumpOnCppException = false;
  SkipModulesForError += ";libgcc_s_seh-1;libstdc++-6;msvcrt";
}

// One worker, so that the log has an order. It begins when all jobs are queued.
void work_on(std::vector<SmartPtr<paper>> const& papers) {
  auto const pool = CreateNewThreadPool(0, 0);
  std::vector<SmartPtr<order>> orders;
  for (auto const& each : papers) {
    if (as_wstring(each->name).ends_with(order_ending)) {
      orders.push_back(MakeCounted<order>(each));
      pool->AddJob(SmartPtr<IThreadJob>(orders.back()));
    } else {
      pool->AddJob(SmartPtr<IThreadJob>(MakeCounted<count_of_stock>(each)));
    }
  }
  Debug << pool << '\n';
  pool->SetLimits(1, 0, 0);
  pool->WaitForIdle(-1);
  Debug << pool << '\n';
  for (auto const& each : orders) each->log_result();
  pool->Stop();
}

int mistake(std::wstring const& reason) {
  complain(L"road_of_one_event: " + reason + L"; " + usage);
  return 2;
}

int run(command const& wanted) {
  set_up_diagnostics();
  auto const papers = open_papers(wanted.papers);
  enter(wanted.work);
  Debug.ChangeWriter(MakeCounted<TerminalWriter>());
  work_on(papers);
  return 0;
}

int run(std::vector<std::wstring> const& arguments) {
  command wanted;
  bool has_papers = false;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    auto const& argument = arguments[i];
    if (argument == L"--help" || argument == L"-h")
      return write(stream::output, std::wstring(usage) + help), 0;
    if (argument == L"--work") {
      if (++i == arguments.size()) return mistake(L"--work without a folder");
      wanted.work = arguments[i];
    } else if (argument.starts_with(L'-')) {
      return mistake(L"unknown option '" + argument + L"'");
    } else if (has_papers) {
      return mistake(L"more than one folder of papers");
    } else {
      wanted.papers = argument;
      has_papers = true;
    }
  }
  return run(wanted);
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  try {
    return run({arguments + 1, arguments + count});
  } catch (EGeneric const& error) {
    complain(L"road_of_one_event", error);
  } catch (std::exception const& error) {
    complain(L"road_of_one_event: " + as_wstring(std::string(error.what())));
  }
  return 2;
}
