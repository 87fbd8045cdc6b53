// Printers of the real spooler, and what some spoolers only promise by a fake one.
#include "velt/os/Printer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <winspool.h>

#include <string>
#include <vector>

#include "tests/os/FakeSpooler.h"
#include "tests/os/ScratchPrinter.h"
#include "tests/support/SystemCode.h"
#include "velt/exceptions/ExceptionFamily.h"

using velt_test::FakeSpooler;
using velt_test::ScratchPrinter;
using velt_test::system_code;

VELT_SPOOLER_CALL(ClosePrinter) VELT_SPOOLER_CALL(EnumJobsW) VELT_SPOOLER_CALL(EnumPortsW)
VELT_SPOOLER_CALL(EnumPrintersW) VELT_SPOOLER_CALL(GetJobW) VELT_SPOOLER_CALL(GetPrinterDataW)
VELT_SPOOLER_CALL(GetPrinterW) VELT_SPOOLER_CALL(OpenPrinterW) VELT_SPOOLER_CALL(SetJobW)
VELT_SPOOLER_CALL(SetPrinterDataW) VELT_SPOOLER_CALL(SetPrinterW)

namespace {

void* const some_handle = reinterpret_cast<void*>(0x1230);

// One whose handle nobody else knows; for tests with a fake spooler.
struct UnrealPrinter : TPrinter {
  UnrealPrinter() : TPrinter(DoNotInitialize) { AttachHandle(some_handle); }
  ~UnrealPrinter() { DetachHandle(); }
};

template <class Record>
AutoPtr<Record> block_of(std::size_t size) {
  return AutoPtr<Record>(static_cast<Record*>(::operator new(size)));
}

// What every operation that fetches a block must do. `beginning` is that of its
// calls, up to the block; `is_list` tells whether it answers a count.
template <class Record, class Fetch>
void expect_two_calls(std::string const& beginning, bool is_list, Fetch const& fetch) {
  SCOPED_TRACE(beginning);
  UnrealPrinter printer;
  auto block = block_of<Record>(1);
  auto const old = block.get();
  std::string const places = is_list ? "out, out)" : "out)";
  std::string const first = beginning + "none, 0, " + places;
  std::string const second = beginning + "block, 200, " + places;
  {
    FakeSpooler spooler{{TRUE, 0, {0, 0}}};
    EXPECT_EQ(fetch(printer, block), 0u) << "nothing to fetch";
    EXPECT_EQ(spooler.calls, first);
    EXPECT_EQ(block.get(), old);
  }
  {
    FakeSpooler spooler{{FALSE, ERROR_ACCESS_DENIED, {200}}};
    EXPECT_EQ(system_code([&] { fetch(printer, block); }), ERROR_ACCESS_DENIED);
    EXPECT_EQ(spooler.calls, first);
    EXPECT_EQ(block.get(), old);
  }
  {
    FakeSpooler spooler{{FALSE, ERROR_INSUFFICIENT_BUFFER, {200, 0}},
                        {TRUE, 0, {200, 2}, std::string(200, '\x5A')}};
    EXPECT_EQ(fetch(printer, block), is_list ? 2u : 0u);
    EXPECT_EQ(spooler.calls, first + second);
    EXPECT_EQ(reinterpret_cast<char*>(block.get())[199], '\x5A');
  }
  {
    block.reset();
    FakeSpooler spooler{{FALSE, ERROR_INSUFFICIENT_BUFFER, {200}},
                        {FALSE, ERROR_INSUFFICIENT_BUFFER, {300}, std::string(200, '\x5B')}};
    EXPECT_EQ(system_code([&] { fetch(printer, block); }), ERROR_INSUFFICIENT_BUFFER) << "grown";
    EXPECT_EQ(spooler.calls, first + second);
    ASSERT_TRUE(block) << "the new block stays";
    EXPECT_EQ(*reinterpret_cast<char*>(block.get()), '\x5B');
  }
}

template <class Record>
void expect_printer_info(std::string const& level) {
  expect_two_calls<Record>("GetPrinterW(printer, " + level + ", ", false,
                           [](auto& printer, auto& block) {
                             printer.GetPrinterInfo(block);
                             return 0u;
                           });
}

template <class Record>
void expect_job_info(std::string const& level) {
  expect_two_calls<Record>("GetJobW(printer, 7, " + level + ", ", false,
                           [](auto& printer, auto& block) {
                             printer.GetJobInfo(block, 7);
                             return 0u;
                           });
}

template <class Record>
void expect_jobs(std::string const& level) {
  expect_two_calls<Record>(
      "EnumJobsW(printer, 3, 9, " + level + ", ", true,
      [](auto& printer, auto& block) { return printer.EnumJobsW(block, 3, 9); });
}

template <class Record>
void expect_printers(std::string const& level) {
  expect_two_calls<Record>(
      "EnumPrintersW(2, place, " + level + ", ", true,
      [](auto&, auto& block) { return TPrinter::EnumPrintersW(block, 2, L"place"); });
}

template <class Record>
void expect_ports(std::string const& level) {
  expect_two_calls<Record>("EnumPortsW(server, " + level + ", ", true, [](auto&, auto& block) {
    return TPrinter::EnumPortsW(block, L"server");
  });
}

// What the value is of data that the spooler describes so: its type, and its size
// at the first call and at the second.
_value_t data_of(DWORD type, DWORD size, std::string const& bytes) {
  UnrealPrinter printer;
  FakeSpooler spooler{{ERROR_MORE_DATA, 0, {type, size}},
                      {ERROR_SUCCESS, 0, {type, DWORD(bytes.size())}, bytes}};
  auto const result = printer.GetPrinterDataW(L"data");
  EXPECT_EQ(spooler.calls, "GetPrinterDataW(printer, data, out, none, 0, out)"
                           "GetPrinterDataW(printer, data, out, block, " +
                               std::to_string(size) + ", out)");
  return result;
}

std::string calls_of_setting(_value_t const& value) {
  UnrealPrinter printer;
  bool const is_stored = value.type() != typeid(void) && value.type() != typeid(double) &&
                         value.type() != typeid(bool) && !value.object();
  FakeSpooler spooler{};
  if (is_stored) spooler.answers.push_back({ERROR_SUCCESS});
  printer.SetPrinterDataW(L"data", value);
  return spooler.calls;
}

struct Printer : ::testing::Test {
  ScratchPrinter const scratch;
  TPrinter printer{scratch.name.c_str(), PRINTER_ALL_ACCESS};

  // A job that is being printed to a file that goes with the folder for such.
  DWORD job() {
    DOC_INFO_1W document = {const_cast<wchar_t*>(L"a document"),
                            const_cast<wchar_t*>(scratch.output().c_str()),
                            const_cast<wchar_t*>(L"RAW")};
    return StartDocPrinterW(printer, 1, reinterpret_cast<BYTE*>(&document));
  }

  DWORD store(wchar_t const* name, DWORD type, std::string bytes) {
    return ::SetPrinterDataW(printer, const_cast<wchar_t*>(name), type,
                             reinterpret_cast<BYTE*>(bytes.data()), DWORD(bytes.size()));
  }
};

}  // namespace

TEST(PrinterCalls, BlocksAreFetchedInTwoCallsAndNeverInThree) {
  expect_printer_info<PRINTER_INFO_1W>("1");
  expect_printer_info<PRINTER_INFO_2W>("2");
  expect_printer_info<PRINTER_INFO_3>("3");
  expect_printer_info<PRINTER_INFO_4W>("4");
  expect_job_info<JOB_INFO_1W>("1");
  expect_job_info<JOB_INFO_2W>("2");
  expect_job_info<JOB_INFO_3>("3");
  expect_jobs<JOB_INFO_1W>("1");
  expect_jobs<JOB_INFO_2W>("2");
  expect_jobs<JOB_INFO_3>("3");
  expect_printers<PRINTER_INFO_1W>("1");
  expect_printers<PRINTER_INFO_2W>("2");
  expect_ports<PORT_INFO_1W>("1");
  expect_ports<PORT_INFO_2W>("2");
}

TEST(PrinterCalls, SettingAndControlAreOneCallWhoseFailureThrows) {
  struct {
    char const* call;
    void (*run)(TPrinter& printer);
  } const operations[] = {
      {"SetPrinterW(printer, 0, none, 5)", [](TPrinter& p) { p.ControlPrinter(5); }},
      {"SetJobW(printer, 7, 0, none, 5)", [](TPrinter& p) { p.ControlJob(7, 5); }},
      {"SetPrinterW(printer, 2, block, 0)",
       [](TPrinter& p) { p.SetPrinterInfo(block_of<PRINTER_INFO_2W>(1)); }},
      {"SetPrinterW(printer, 3, block, 0)",
       [](TPrinter& p) { p.SetPrinterInfo(block_of<PRINTER_INFO_3>(1)); }},
      {"SetPrinterW(printer, 4, block, 0)",
       [](TPrinter& p) { p.SetPrinterInfo(block_of<PRINTER_INFO_4W>(1)); }},
      {"SetJobW(printer, 7, 1, block, 0)",
       [](TPrinter& p) { p.SetJobInfo(block_of<JOB_INFO_1W>(1), 7); }},
      {"SetJobW(printer, 7, 2, block, 0)",
       [](TPrinter& p) { p.SetJobInfo(block_of<JOB_INFO_2W>(1), 7); }},
      {"SetJobW(printer, 7, 3, block, 0)",
       [](TPrinter& p) { p.SetJobInfo(block_of<JOB_INFO_3>(1), 7); }},
  };
  for (auto const& [call, run] : operations) {
    UnrealPrinter printer;
    FakeSpooler spooler{{TRUE}, {FALSE, ERROR_ACCESS_DENIED}};
    EXPECT_EQ(system_code([&] { run(printer); }), -1);
    EXPECT_EQ(system_code([&] { run(printer); }), ERROR_ACCESS_DENIED);
    EXPECT_EQ(spooler.calls, std::string(call) + call);
  }
  UnrealPrinter printer;
  FakeSpooler spooler{{TRUE}, {FALSE, ERROR_ACCESS_DENIED}};
  EXPECT_TRUE(printer.ControlJobSilent(7, 5));
  EXPECT_FALSE(printer.ControlJobSilent(7, 5));
}

TEST(PrinterCalls, HandleGoesBackToTheSpoolerIfThereIsOne) {
  {
    FakeSpooler spooler{{TRUE}};
    TPrinter printer(L"name", 8);
    EXPECT_EQ(spooler.calls, "OpenPrinterW(name, out, access 8)");
    EXPECT_EQ(static_cast<void*>(printer), INVALID_HANDLE_VALUE) << "the fake gives none";
  }
  FakeSpooler spooler{{FALSE, ERROR_INVALID_HANDLE}};
  TPrinter(DoNotInitialize).AttachHandle(some_handle);
  EXPECT_EQ(spooler.calls, "ClosePrinter(printer)") << "the refusal is ignored";
}

TEST(PrinterCalls, DataOfNoBytesIsTheEmptyValueAndOtherAnswersThrow) {
  UnrealPrinter printer;
  FakeSpooler spooler{{ERROR_SUCCESS, 0, {REG_SZ, 0}},
                      {ERROR_ACCESS_DENIED, 1},
                      {ERROR_MORE_DATA, 1, {REG_SZ, 4}},
                      {ERROR_MORE_DATA, 1, {REG_SZ, 6}}};
  EXPECT_TRUE(printer.GetPrinterDataW(L"data").empty());
  EXPECT_EQ(system_code([&] { printer.GetPrinterDataW(L"data"); }), ERROR_ACCESS_DENIED);
  EXPECT_EQ(system_code([&] { printer.GetPrinterDataW(L"data"); }), ERROR_MORE_DATA) << "grown";
}

TEST(PrinterCalls, DataBecomesAValueByItsTypeAndItsBytes) {
  EXPECT_EQ(data_of(REG_SZ, 6, std::string("a\0b\0\0\0", 6)), std::wstring(L"ab\0\0\0\0", 6));
  EXPECT_EQ(data_of(REG_SZ, 3, std::string("a\0b", 3)), std::wstring(L"ab\0", 3)) << "odd";
  EXPECT_EQ(data_of(REG_SZ, 8, std::string("a\0\0\0", 4)), std::wstring(L"a\0\0\0", 4))
      << "shrunk";
  EXPECT_EQ(data_of(REG_DWORD, 4, "\x01\x02\x03\x84"), 0x84030201ul);
  EXPECT_EQ(data_of(REG_DWORD, 6, "\x01\x02\x03\x04\x05\x06"), 0x04030201ul);
  EXPECT_EQ(data_of(REG_DWORD, 2, "\x01\x02"), 0x0201ul);
  EXPECT_TRUE(data_of(REG_BINARY, 4, "\x01\x02\x03\x04").empty());
}

TEST(PrinterCalls, OnlyTextsAndNumbersAreStored) {
  std::string const text = "SetPrinterDataW(printer, data, 1, block, 5)";
  EXPECT_EQ(calls_of_setting(L"ab\u0142cd"), text) << "a byte for each character";
  EXPECT_EQ(calls_of_setting("abcde"), text);
  EXPECT_EQ(calls_of_setting(std::vector<std::string>{"abcde", "f"}), text);
  std::string const number = "SetPrinterDataW(printer, data, 4, block, 4)";
  EXPECT_EQ(calls_of_setting(-1), number);
  EXPECT_EQ(calls_of_setting(4'000'000'000ul), number);
  EXPECT_EQ(calls_of_setting(_value_t()), "");
  EXPECT_EQ(calls_of_setting(1.5), "");
  EXPECT_EQ(calls_of_setting(true), "");
  EXPECT_EQ(calls_of_setting(SmartPtr<SmartPtrObj>()), "");

  UnrealPrinter printer;
  FakeSpooler spooler{{ERROR_ACCESS_DENIED, 1}};
  EXPECT_EQ(system_code([&] { printer.SetPrinterDataW(L"data", 1); }), ERROR_ACCESS_DENIED);
}

TEST(PrinterWithoutOne, UnknownNameIsToldWithTheAccess) {
  try {
    TPrinter(L"no such printer", PRINTER_ACCESS_USE);
    FAIL() << "it opened";
  } catch (ESystemException const& error) {
    EXPECT_EQ(error["Code"].as_int(), ERROR_INVALID_PRINTER_NAME);
    EXPECT_EQ(error["Name"], L"no such printer");
    EXPECT_EQ(error["Access"], static_cast<unsigned long>(PRINTER_ACCESS_USE));
  }
}

TEST_F(Printer, RecordsOfAllLevelsNameIt) {
  AutoPtr<PRINTER_INFO_1W> first;
  AutoPtr<PRINTER_INFO_2W> second;
  AutoPtr<PRINTER_INFO_4W> fourth;
  printer.GetPrinterInfo(first);
  printer.GetPrinterInfo(second);
  printer.GetPrinterInfo(fourth);
  EXPECT_EQ(first->pName, scratch.name);
  EXPECT_EQ(second->pPrinterName, scratch.name);
  EXPECT_STREQ(second->pDriverName, scratch.driver);
  EXPECT_EQ(fourth->pPrinterName, scratch.name);
}

TEST_F(Printer, RecordThatIsSetReadsBack) {
  AutoPtr<PRINTER_INFO_2W> info;
  printer.GetPrinterInfo(info);
  std::wstring comment = L"behind the door";
  info->pComment = comment.data();
  printer.SetPrinterInfo(info);
  printer.GetPrinterInfo(info);
  EXPECT_EQ(info->pComment, comment);
}

TEST_F(Printer, IsListedBesideThePorts) {
  AutoPtr<PRINTER_INFO_2W> printers;
  auto const count = TPrinter::EnumPrintersW(printers, PRINTER_ENUM_LOCAL, nullptr);
  std::vector<std::wstring> names;
  for (unsigned long i = 0; i < count; ++i) names.push_back(printers.get()[i].pPrinterName);
  EXPECT_THAT(names, testing::Contains(scratch.name));

  AutoPtr<PORT_INFO_2W> ports;
  auto const port_count = TPrinter::EnumPortsW(ports, nullptr);
  EXPECT_GT(port_count, 0u);
  for (unsigned long i = 0; i < port_count; ++i) EXPECT_STRNE(ports.get()[i].pPortName, L"");
}

TEST_F(Printer, JobTellsItsDocument) {
  DWORD const id = job();
  ASSERT_NE(id, 0u);
  AutoPtr<JOB_INFO_1W> first;
  AutoPtr<JOB_INFO_2W> second;
  printer.GetJobInfo(first, id);
  printer.GetJobInfo(second, id);
  EXPECT_EQ(first->JobId, id);
  EXPECT_STREQ(first->pDocument, L"a document");
  EXPECT_EQ(second->pPrinterName, scratch.name);
  EndDocPrinter(printer);
}

TEST_F(Printer, UnknownJobIsRefused) {
  AutoPtr<JOB_INFO_1W> info;
  EXPECT_THROW(printer.GetJobInfo(info, 4711), ESystemException);
  EXPECT_FALSE(info);
  EXPECT_FALSE(printer.ControlJobSilent(4711, JOB_CONTROL_CANCEL));
  EXPECT_THROW(printer.ControlJob(4711, JOB_CONTROL_CANCEL), ESystemException);
}

TEST_F(Printer, DataOfAllKindsIsKept) {
  EXPECT_EQ(system_code([&] { printer.GetPrinterDataW(L"missing"); }), ERROR_FILE_NOT_FOUND);
  printer.SetPrinterDataW(L"trays", 3);
  EXPECT_EQ(printer.GetPrinterDataW(L"trays"), 3ul);

  ASSERT_EQ(store(L"name", REG_SZ, std::string("l\0e\0f\0t\0\0\0", 10)), ERROR_SUCCESS);
  EXPECT_EQ(printer.GetPrinterDataW(L"name"), std::wstring(L"left\0\0\0\0\0\0", 10));

  printer.SetPrinterDataW(L"half", L"abcd");
  std::wstring const half = printer.GetPrinterDataW(L"half");
  EXPECT_EQ(half.substr(0, 2), L"ab") << "and not the rest:";
  EXPECT_THAT(half.substr(2), testing::Each(L'\0'));

  ASSERT_EQ(store(L"bytes", REG_BINARY, "1234"), ERROR_SUCCESS);
  EXPECT_TRUE(printer.GetPrinterDataW(L"bytes").empty());
}
