// Runs a program of the build to its end and keeps what it wrote.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace velt_test {

struct finished_process {
  unsigned long status;
  std::string output, errors;
};

// A new folder for the files of a test, removed with all that is in it.
class scratch_folder {
public:
  scratch_folder();
  ~scratch_folder();
  scratch_folder(scratch_folder const&) = delete;
  scratch_folder& operator=(scratch_folder const&) = delete;

  std::filesystem::path const& path() const { return folder; }

private:
  std::filesystem::path folder;
};

std::string content_of(std::filesystem::path const& file);
std::vector<std::string> lines_of(std::string const& text);  // without their ends

// Starts `program`, which lies beside the test program, in the folder and with
// this process's environment. Arguments must not hold quotation marks nor end in
// a backslash. Throws ESystemException if it does not start; one that takes
// longer than a minute is ended and has the status 258.
finished_process run_program(std::wstring const& program,
                             std::vector<std::wstring> const& arguments,
                             std::filesystem::path const& folder);

}  // namespace velt_test
