// Printers of the real spooler, and what some spoolers only promise by answers that
// are written here.
#include "velt/os/Printer.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <winspool.h>

#include <string>
#include <vector>

#include "tests/os/ScratchPrinter.h"
#include "tests/support/Expect.h"
#include "tests/support/Imports.h"

using namespace velt_test;

VELT_WATCH(ClosePrinter, EnumJobsW, GetJobW, GetPrinterDataW, OpenPrinterW, SetPrinterDataW);

namespace {

using answers = std::vector<Answer>;

constexpr DWORD too_small = ERROR_INSUFFICIENT_BUFFER, denied = ERROR_ACCESS_DENIED;

// What every operation that fetches a block must do. `call` is how its calls begin,
// up to the block.
template <class Record, class Fetch>
void expect_two_calls(std::string const& call, std::string const& end, Fetch const& fetch) {
  std::string const first = call + "none, 0" + end, both = first + call + "out, 200" + end;
  std::string const bytes(200, 'n');
  struct {
    answers script;
    int code;
    std::string calls;
    char block;  // its first byte: of the old one or of the new one
  } const cases[] = {
      {{{TRUE, 0, {0, 0}}}, -1, first, 'o'},
      {{{FALSE, denied, {200}}}, denied, first, 'o'},
      {{{FALSE, too_small, {200, 0}}, {TRUE, 0, {200, 2}, bytes}}, -1, both, 'n'},
      {{{FALSE, too_small, {200}}, {FALSE, too_small, {300}, bytes}}, too_small, both, 'n'}};
  for (auto const& [script, code, calls, block] : cases) {
    UnrealPrinter printer;
    AutoPtr<Record> record(static_cast<Record*>(::operator new(sizeof(Record))));
    auto const first_byte = [&] { return reinterpret_cast<char*>(record.get()); };
    *first_byte() = 'o';
    Watch watch(script);
    EXPECT_EQ(system_code([&] { fetch(printer, record); }), code);
    EXPECT_EQ(watch.calls, calls);
    EXPECT_EQ(*first_byte(), block) << calls;
  }
}

// What the value is of data that the spooler describes so: its type, and its size
// at the first call and at the second.
_value_t data_of(DWORD type, DWORD size, std::string const& bytes) {
  UnrealPrinter printer;
  Watch watch(answers{{ERROR_MORE_DATA, 0, {type, size}},
                      {ERROR_SUCCESS, 0, {type, DWORD(bytes.size())}, bytes}});
  return printer.GetPrinterDataW(L"data");
}

// The calls by which the value is stored, which are as many as `count`.
std::string storing(_value_t const& value, std::size_t count = 1) {
  UnrealPrinter printer;
  Watch watch(answers(count, Answer{ERROR_SUCCESS}));
  printer.SetPrinterDataW(L"data", value);
  return watch.calls;
}

}  // namespace

TEST(PrinterCalls, BlocksAreFetchedInTwoCallsAndNeverInThree) {
  expect_two_calls<JOB_INFO_2W>("GetJobW(buffer, 7, 2, ", ", out)",
                                [](TPrinter& p, auto& info) { p.GetJobInfo(info, 7); });
  expect_two_calls<JOB_INFO_3>("EnumJobsW(buffer, 3, 9, 3, ", ", out, out)",
                               [](TPrinter& p, auto& list) { p.EnumJobsW(list, 3, 9); });
}

TEST(PrinterCalls, HandleGoesBackToTheSpoolerIfThereIsOne) {
  Watch watch(answers{{TRUE}, {FALSE, ERROR_INVALID_HANDLE}});
  EXPECT_EQ(static_cast<void*>(TPrinter(L"name", 8)), INVALID_HANDLE_VALUE) << "none is given";
  TPrinter(DoNotInitialize).AttachHandle(buffer);
  EXPECT_EQ(watch.calls, "OpenPrinterW(name, out, out)ClosePrinter(buffer)")
      << "whose refusal is ignored";
}

TEST(PrinterCalls, DataBecomesAValueByItsTypeAndItsBytes) {
  EXPECT_EQ(data_of(REG_SZ, 6, std::string("a\0b\0\0\0", 6)), std::wstring(L"ab\0\0\0\0", 6));
  EXPECT_EQ(data_of(REG_SZ, 3, std::string("a\0b", 3)), std::wstring(L"ab\0", 3)) << "odd";
  EXPECT_EQ(data_of(REG_SZ, 8, std::string("a\0", 2)), std::wstring(L"a\0", 2)) << "shrunk";
  EXPECT_EQ(data_of(REG_DWORD, 6, "\x01\x02\x03\x84\x05\x06"), 0x84030201ul);
  EXPECT_EQ(data_of(REG_DWORD, 2, "\x01\x02"), 0x0201ul);
  EXPECT_TRUE(data_of(REG_BINARY, 4, "\x01\x02\x03\x04").empty());

  UnrealPrinter printer;
  Watch watch(answers{{ERROR_SUCCESS, 0, {REG_SZ, 0}},
                      {denied, 1},
                      {ERROR_MORE_DATA, 1, {REG_SZ, 4}},
                      {ERROR_MORE_DATA, 1, {REG_SZ, 6}}});
  EXPECT_TRUE(printer.GetPrinterDataW(L"data").empty());
  EXPECT_EQ(system_code([&] { printer.GetPrinterDataW(L"data"); }), static_cast<int>(denied));
  EXPECT_EQ(system_code([&] { printer.GetPrinterDataW(L"data"); }), ERROR_MORE_DATA) << "grown";
}

TEST(PrinterCalls, OnlyTextsAndNumbersAreStored) {
  std::string const text = "SetPrinterDataW(buffer, data, 1, out, 5)";
  EXPECT_EQ(storing(L"ab\u0142cd"), text) << "a byte for each character";
  EXPECT_EQ(storing(std::vector<std::string>{"abcde", "f"}), text);
  std::string const number = "SetPrinterDataW(buffer, data, 4, out, 4)";
  for (_value_t const& value : {_value_t(-1), _value_t(4'000'000'000ul)})
    EXPECT_EQ(storing(value), number);
  for (_value_t const& value : {_value_t(), _value_t(1.5), _value_t(true), _value_t(_time_t())})
    EXPECT_EQ(storing(value, 0), "");

  UnrealPrinter printer;
  Watch watch(answers{{denied, 1}});
  EXPECT_EQ(system_code([&] { printer.SetPrinterDataW(L"data", 1); }), static_cast<int>(denied));
}

TEST(Printers, RealOneNamesItselfAndKeepsWhatIsSet) {
  EXPECT_EQ(values_of([] { TPrinter(L"no such printer", PRINTER_ACCESS_USE); }),
            "Code=1801;Text=Invalid printer name.;Name=no such printer;Access=8");
  ScratchPrinter const scratch;
  TPrinter printer(scratch.name.c_str(), PRINTER_ALL_ACCESS);
  AutoPtr<PRINTER_INFO_2W> info;
  printer.GetPrinterInfo(info);
  EXPECT_EQ(info->pPrinterName, scratch.name);
  std::wstring comment = L"behind the door";
  info->pComment = comment.data();
  printer.SetPrinterInfo(info);
  printer.GetPrinterInfo(info);
  EXPECT_EQ(info->pComment, comment);
  EXPECT_EQ(system_code([&] { printer.GetPrinterDataW(L"missing"); }), ERROR_FILE_NOT_FOUND);
  printer.SetPrinterDataW(L"trays", 3);
  EXPECT_EQ(printer.GetPrinterDataW(L"trays"), 3ul);
  printer.SetPrinterDataW(L"half", L"abcd");
  std::wstring const half = printer.GetPrinterDataW(L"half");
  EXPECT_EQ(half.substr(0, half.find(L'\0')), L"ab") << "and not the rest";
}
