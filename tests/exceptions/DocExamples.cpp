// The examples of docs/exceptions.md.
#include "tests/support/DocExamples.h"

#include <gtest/gtest.h>
#include <windows.h>

#include "velt/exceptions/ExceptionFamily.h"

namespace {

void open_settings(std::string const& path) {
  HANDLE const file =
      CreateFileA(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE)
    throw ESystemException(GetLastError(), {"File", path}, {"Purpose", "settings"});
  CloseHandle(file);
}

std::string report_of(std::string const& path) {
  std::string report;
  bool try_again = true;
  try {
    open_settings(path);
  } catch (EGeneric& error) {
    error.put_value("Attempt", 3);   // handlers may add what they know
    int const code = error["code"];  // names are found in any case
    try_again = code == ERROR_SHARING_VIOLATION;
    report = error.what();
  }
  EXPECT_FALSE(try_again);
  return report;
}

}  // namespace

TEST(ExceptionDocumentation, HandlerReadsTheValuesBack) {
  std::string const text = ESystemException(ERROR_FILE_NOT_FOUND)["Text"].as_string();
  EXPECT_EQ(report_of("no-such-file.settings"),
            "Code: 2 (0x2)\nText: " + text +
                "\nFile: no-such-file.settings\nPurpose: settings\nAttempt: 3 (0x3)");
}

TEST(ExceptionDocumentation, ExamplesAreThese) {
  velt_test::expect_doc_examples_run("exceptions.md", __FILE__);
}
