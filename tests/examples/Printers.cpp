// The example printer_list, run as a user runs it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/examples/Transcript.h"
#include "tests/os/ScratchPrinter.h"

namespace {

using ::testing::Contains;
using ::testing::MatchesRegex;
using velt_test::lines_of;

velt_test::finished_process run(std::vector<std::wstring> const& arguments) {
  return velt_test::run_program(L"printer_list.exe", arguments, velt_test::source_folder);
}

}  // namespace

TEST(PrinterList, ListsAndDescribesAPrinter) {
  EXPECT_EQ(run({}).status, 0) << "though there may be none";
  velt_test::ScratchPrinter const printer;
  std::string const name(printer.name.begin(), printer.name.end());
  auto const all = run({});
  EXPECT_EQ(all.status, 0);
  EXPECT_EQ(all.errors, "");
  EXPECT_THAT(lines_of(all.output), Contains(MatchesRegex(name + " +velt test driver")));

  auto const one = run({printer.name});
  EXPECT_EQ(one.status, 0);
  EXPECT_EQ(one.errors, "");
  EXPECT_EQ(one.output, "name     " + name + "\ndriver   velt test driver\nport     FILE:\n" +
                            "jobs     0\n");
}

TEST(PrinterList, UnknownPrinterAndWrongUseAreOneLine) {
  auto const unknown = run({L"no such printer"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_EQ(unknown.output, "");
  EXPECT_EQ(unknown.errors, "printer_list: no such printer: Invalid printer name.\n");

  auto const wrong = run({L"a", L"b"});
  EXPECT_EQ(wrong.status, 2);
  EXPECT_EQ(wrong.output, "");
  EXPECT_EQ(wrong.errors,
            "printer_list: more than one printer; usage: printer_list [PRINTER]\n");
}
