// The examples of docs/exceptions.md.
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

}  // namespace

TEST(ExceptionDocumentation, FirstExample) {
  try {
    open_settings("no-such-file.settings");
    FAIL() << "did not throw";
  } catch (EGeneric& error) {
    error.put_value("Attempt", 3);
    int const code = error["code"];
    std::string const report = error.what();
    EXPECT_EQ(code, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(report, "Code: 2 (0x2)\nText: " + error["Text"].as_string() +
                          "\nFile: no-such-file.settings\nPurpose: settings\nAttempt: 3 (0x3)");
  }
}
