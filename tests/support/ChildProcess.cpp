#include "tests/support/ChildProcess.h"

#include <windows.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <memory>

#include "velt/exceptions/ExceptionFamily.h"
#include "velt/text/Format.h"

namespace velt_test {
namespace {

constexpr DWORD longest_run_ms = 60'000;

using handle_owner = std::unique_ptr<void, decltype([](void* handle) { CloseHandle(handle); })>;

std::filesystem::path own_folder() {
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  return std::filesystem::path(path).parent_path();
}

handle_owner new_inherited_file(std::filesystem::path const& path) {
  SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
  HANDLE const file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                  &inherited, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) throw ESystemException(GetLastError(), {"File", path.native()});
  return handle_owner(file);
}

handle_owner start(std::wstring command, std::filesystem::path const& folder, HANDLE output,
                   HANDLE errors) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = output;
  startup.hStdError = errors;
  PROCESS_INFORMATION process;
  auto const create = [&] {
    return CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr,
                          folder.c_str(), &startup, &process);
  };
  // On a busy machine Wine sometimes gives up on a process that is slow to begin.
  if (!create() && (GetLastError() != ERROR_INTERNAL_ERROR || !create()))
    throw ESystemException(GetLastError(), {"Command", command});
  CloseHandle(process.hThread);
  return handle_owner(process.hProcess);
}

unsigned long status_at_end(HANDLE process) {
  if (WaitForSingleObject(process, longest_run_ms) == WAIT_TIMEOUT) {
    TerminateProcess(process, WAIT_TIMEOUT);
    WaitForSingleObject(process, INFINITE);
  }
  DWORD status = 0;
  GetExitCodeProcess(process, &status);
  return status;
}

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

void scratch_folder::add(std::filesystem::path const& name, std::string const& content) const {
  std::ofstream(folder / name, std::ios::binary) << content;
}

std::string content_of(std::filesystem::path const& file) {
  std::ifstream stream(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), {});
}

finished_process run_program(std::wstring const& program,
                             std::vector<std::wstring> const& arguments,
                             std::filesystem::path const& folder) {
  scratch_folder const scratch;
  std::wstring command = L'"' + (own_folder() / program).native() + L'"';
  for (auto const& argument : arguments) command += L" \"" + argument + L'"';

  auto output = new_inherited_file(scratch.path() / "output");
  auto errors = new_inherited_file(scratch.path() / "errors");
  auto const process = start(command, folder, output.get(), errors.get());
  auto const status = status_at_end(process.get());
  output.reset();
  errors.reset();
  return {status, content_of(scratch.path() / "output"), content_of(scratch.path() / "errors")};
}

}  // namespace velt_test
