#include "tests/support/ChildProcess.h"

#include <windows.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <sstream>

#include "velt/exceptions/ExceptionFamily.h"
#include "velt/os/File.h"
#include "velt/text/Format.h"

namespace velt_test {
namespace {

constexpr DWORD longest_run_ms = 60'000;

struct inherited_file : TFile {
  explicit inherited_file(std::filesystem::path const& path)
      : TFile(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, CREATE_ALWAYS) {
    SetHandleInformation(handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
  }
};

}  // namespace

scratch_folder::scratch_folder() {
  static std::atomic<int> count;
  folder = std::filesystem::temp_directory_path() /
           format_wstring(L"velt-test-%lu-%d", GetCurrentProcessId(), ++count);
  // Of an earlier process with this id, which left a file open.
  std::filesystem::remove_all(folder);
  std::filesystem::create_directory(folder);
}

scratch_folder::~scratch_folder() {
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
}

std::string content_of(std::filesystem::path const& file) {
  std::ifstream stream(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), {});
}

std::vector<std::string> lines_of(std::string const& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line); lines.push_back(line))
    if (line.ends_with('\r')) line.pop_back();
  return lines;
}

finished_process run_program(std::wstring const& program,
                             std::vector<std::wstring> const& arguments,
                             std::filesystem::path const& folder) {
  scratch_folder const scratch;
  wchar_t own_path[MAX_PATH];
  GetModuleFileNameW(nullptr, own_path, MAX_PATH);
  auto const path = std::filesystem::path(own_path).replace_filename(program);
  std::wstring command = L'"' + path.native() + L'"';
  for (auto const& argument : arguments) command += L" \"" + argument + L'"';

  inherited_file const output(scratch.path() / "output"), errors(scratch.path() / "errors");
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = output;
  startup.hStdError = errors;
  PROCESS_INFORMATION made;
  auto const create = [&] {
    return CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr,
                          folder.c_str(), &startup, &made);
  };
  // On a busy machine Wine sometimes gives up on a process that is slow to begin.
  if (!create() && (GetLastError() != ERROR_INTERNAL_ERROR || !create()))
    throw ESystemException(GetLastError(), {"Command", command});
  CloseHandle(made.hThread);
  THandle process;
  process.AttachHandle(made.hProcess);
  if (process.WaitForSingleObject(longest_run_ms, FALSE) == WAIT_TIMEOUT) {
    TerminateProcess(process, WAIT_TIMEOUT);
    process.WaitForSingleObject(INFINITE, FALSE);
  }
  DWORD status = 0;
  GetExitCodeProcess(process, &status);
  return {status, content_of(scratch.path() / "output"), content_of(scratch.path() / "errors")};
}

}  // namespace velt_test
