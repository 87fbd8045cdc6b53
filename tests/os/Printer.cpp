// Printers of the real spooler, and what some spoolers only promise by a fake one.
#include "velt/os/Printer.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <winspool.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "tests/os/ScratchPrinter.h"
#include "tests/support/Expect.h"
#include "velt/exceptions/ExceptionFamily.h"

using namespace velt_test;

// The spooler's calls, replaced at link time: they go to the real spooler, or to a
// fake one that writes them down and answers as it was told.
namespace {

// What a call answers: its result, the last error, the numbers for its places for
// numbers in their order, and the bytes for its block.
struct Answer {
  DWORD result;
  DWORD code = 0;
  std::vector<DWORD> numbers = {};
  std::string block = {};
};

using answers = std::vector<Answer>;

// While it lives, all calls come to it, and only as many as it has answers for.
class FakeSpooler {
public:
  explicit FakeSpooler(answers const& list) : left(list) { current = this; }
  FakeSpooler(FakeSpooler const&) = delete;
  ~FakeSpooler() {
    current = nullptr;
    EXPECT_TRUE(left.empty()) << "of " << calls;
  }

  std::string calls;
  answers left;

  static inline FakeSpooler* current = nullptr;

  template <class... Arguments>
  DWORD call(std::string const& name, Arguments... arguments) {
    numbers.clear();
    block = nullptr;
    std::string list;
    ((list += (list.empty() ? "" : ", ") + text(arguments)), ...);
    calls += name + "(" + list + ")";
    if (left.empty()) return ADD_FAILURE() << "no answer for the last of " << calls, 0;
    Answer const answer = left.front();
    left.erase(left.begin());
    auto const count = std::min(answer.numbers.size(), numbers.size());
    for (std::size_t i = 0; i < count; ++i) *numbers[i] = answer.numbers[i];
    if (block) std::copy(answer.block.begin(), answer.block.end(), block);
    SetLastError(answer.code);
    return answer.result;
  }

private:
  std::string text(DWORD number) { return std::to_string(number); }
  std::string text(DWORD* number) { return numbers.push_back(number), "out"; }
  std::string text(BYTE* place) { return (block = place) ? "block" : "none"; }
  std::string text(wchar_t* name) { return std::string(name, name + wcslen(name)); }
  std::string text(HANDLE) { return "printer"; }
  std::string text(HANDLE*) { return "out"; }
  std::string text(PRINTER_DEFAULTSW* defaults) {
    EXPECT_FALSE(defaults->pDatatype || defaults->pDevMode);
    return "access " + std::to_string(defaults->DesiredAccess);
  }

  // The places that the call under way has.
  std::vector<DWORD*> numbers;
  BYTE* block = nullptr;
};

template <class Function>
struct spooler_call;
template <class Result, class... Parameters>
struct spooler_call<Result(WINAPI*)(Parameters...)> {
  template <auto const& name, auto& real>
  static Result WINAPI replacement(Parameters... arguments) {
    auto const fake = FakeSpooler::current;
    return fake ? static_cast<Result>(fake->call(name, arguments...)) : real(arguments...);
  }
};

}  // namespace

// One for each --wrap option in CMakeLists.txt. The spooler's header does not mark
// its calls as imported, so programs come to them by a jump and not by a pointer.
#define VELT_SPOOLER_CALL(CALL)                                                             \
  extern "C" decltype(CALL) __real_##CALL;                                                  \
  static constexpr char name_of_##CALL[] = #CALL;                                           \
  extern "C" decltype(&CALL) replaced_##CALL;                                               \
  decltype(&CALL) replaced_##CALL =                                                         \
      spooler_call<decltype(&CALL)>::replacement<name_of_##CALL, __real_##CALL>;            \
  asm(".text\n.globl __wrap_" #CALL "\n__wrap_" #CALL ": jmp *replaced_" #CALL "(%rip)");

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
AutoPtr<Record> old() {
  AutoPtr<Record> result(static_cast<Record*>(::operator new(1)));
  *reinterpret_cast<char*>(result.get()) = 'o';
  return result;
}

// What every operation that fetches a block must do. `call` is how its calls
// begin, up to the block.
template <class Record, class Fetch>
void expect_two_calls(std::string const& call, Fetch const& fetch) {
  bool const is_list = call.starts_with("Enum");
  std::string const end = is_list ? ", out, out)" : ", out)";
  std::string const first = call + "none, 0" + end, both = first + call + "block, 200" + end;
  std::string const bytes(200, 'n');
  constexpr DWORD too_small = ERROR_INSUFFICIENT_BUFFER;
  struct {
    answers list;
    int code;
    DWORD count;
    std::string calls;
    char block;  // its first byte: of the old one or of the new one
  } const cases[] = {
      {{{TRUE, 0, {0, 0}}}, -1, 0, first, 'o'},
      {{{FALSE, ERROR_ACCESS_DENIED, {200}}}, ERROR_ACCESS_DENIED, 0, first, 'o'},
      {{{FALSE, too_small, {200, 0}}, {TRUE, 0, {200, 2}, bytes}}, -1, 2, both, 'n'},
      {{{FALSE, too_small, {200}}, {FALSE, too_small, {300}, bytes}}, too_small, 0, both, 'n'}};
  for (auto const& each : cases) {
    UnrealPrinter printer;
    auto record = old<Record>();
    FakeSpooler spooler(each.list);
    DWORD count = 0;
    EXPECT_EQ(system_code([&] { count = fetch(printer, record); }), each.code);
    EXPECT_EQ(spooler.calls, each.calls);
    EXPECT_EQ(count, is_list ? each.count : 0);
    EXPECT_EQ(*reinterpret_cast<char*>(record.get()), each.block) << each.calls;
  }
}

// What the value is of data that the spooler describes so: its type, and its size
// at the first call and at the second.
_value_t data_of(DWORD type, DWORD size, std::string const& bytes) {
  UnrealPrinter printer;
  FakeSpooler spooler(answers{{ERROR_MORE_DATA, 0, {type, size}},
                              {ERROR_SUCCESS, 0, {type, DWORD(bytes.size())}, bytes}});
  auto const result = printer.GetPrinterDataW(L"data");
  EXPECT_EQ(spooler.calls, "GetPrinterDataW(printer, data, out, none, 0, out)"
                           "GetPrinterDataW(printer, data, out, block, " +
                               std::to_string(size) + ", out)");
  return result;
}

// The calls by which the value is stored, which are as many as `count`.
std::string storing(_value_t const& value, std::size_t count = 1) {
  UnrealPrinter printer;
  FakeSpooler spooler(answers(count, Answer{ERROR_SUCCESS}));
  printer.SetPrinterDataW(L"data", value);
  return spooler.calls;
}

struct Printer : ::testing::Test {
  ScratchPrinter const scratch;
  TPrinter printer{scratch.name.c_str(), PRINTER_ALL_ACCESS};
};

}  // namespace

TEST(PrinterCalls, BlocksAreFetchedInTwoCallsAndNeverInThree) {
  auto const printer = [](TPrinter& p, auto& info) { return p.GetPrinterInfo(info), 0ul; };
  expect_two_calls<PRINTER_INFO_1W>("GetPrinterW(printer, 1, ", printer);
  expect_two_calls<PRINTER_INFO_2W>("GetPrinterW(printer, 2, ", printer);
  expect_two_calls<PRINTER_INFO_3>("GetPrinterW(printer, 3, ", printer);
  expect_two_calls<PRINTER_INFO_4W>("GetPrinterW(printer, 4, ", printer);
  auto const job = [](TPrinter& p, auto& info) { return p.GetJobInfo(info, 7), 0ul; };
  expect_two_calls<JOB_INFO_1W>("GetJobW(printer, 7, 1, ", job);
  expect_two_calls<JOB_INFO_2W>("GetJobW(printer, 7, 2, ", job);
  expect_two_calls<JOB_INFO_3>("GetJobW(printer, 7, 3, ", job);
  auto const jobs = [](TPrinter& p, auto& list) { return p.EnumJobsW(list, 3, 9); };
  expect_two_calls<JOB_INFO_1W>("EnumJobsW(printer, 3, 9, 1, ", jobs);
  expect_two_calls<JOB_INFO_2W>("EnumJobsW(printer, 3, 9, 2, ", jobs);
  expect_two_calls<JOB_INFO_3>("EnumJobsW(printer, 3, 9, 3, ", jobs);
  auto const printers = [](TPrinter& p, auto& list) { return p.EnumPrintersW(list, 2, L"at"); };
  expect_two_calls<PRINTER_INFO_1W>("EnumPrintersW(2, at, 1, ", printers);
  expect_two_calls<PRINTER_INFO_2W>("EnumPrintersW(2, at, 2, ", printers);
  auto const ports = [](TPrinter& p, auto& list) { return p.EnumPortsW(list, L"at"); };
  expect_two_calls<PORT_INFO_1W>("EnumPortsW(at, 1, ", ports);
  expect_two_calls<PORT_INFO_2W>("EnumPortsW(at, 2, ", ports);
}

TEST(PrinterCalls, SettingAndControlAreOneCallWhoseFailureThrows) {
  using P = TPrinter&;
  struct {
    char const* call;
    void (*run)(P);
  } const operations[] = {
      {"SetPrinterW(printer, 0, none, 5)", [](P p) { p.ControlPrinter(5); }},
      {"SetPrinterW(printer, 2, block, 0)", [](P p) { p.SetPrinterInfo(old<PRINTER_INFO_2W>()); }},
      {"SetPrinterW(printer, 3, block, 0)", [](P p) { p.SetPrinterInfo(old<PRINTER_INFO_3>()); }},
      {"SetPrinterW(printer, 4, block, 0)", [](P p) { p.SetPrinterInfo(old<PRINTER_INFO_4W>()); }},
      {"SetJobW(printer, 7, 0, none, 5)", [](P p) { p.ControlJob(7, 5); }},
      {"SetJobW(printer, 7, 1, block, 0)", [](P p) { p.SetJobInfo(old<JOB_INFO_1W>(), 7); }},
      {"SetJobW(printer, 7, 2, block, 0)", [](P p) { p.SetJobInfo(old<JOB_INFO_2W>(), 7); }},
      {"SetJobW(printer, 7, 3, block, 0)", [](P p) { p.SetJobInfo(old<JOB_INFO_3>(), 7); }}};
  answers const well_then_refused{{TRUE}, {FALSE, ERROR_ACCESS_DENIED}};
  UnrealPrinter printer;
  for (auto const& [call, run] : operations) {
    FakeSpooler spooler(well_then_refused);
    EXPECT_EQ(system_code([&] { run(printer); }), -1);
    EXPECT_EQ(system_code([&] { run(printer); }), ERROR_ACCESS_DENIED);
    EXPECT_EQ(spooler.calls, std::string(call) + call);
  }
  FakeSpooler spooler(well_then_refused);
  EXPECT_TRUE(printer.ControlJobSilent(7, 5));
  EXPECT_FALSE(printer.ControlJobSilent(7, 5));
}

TEST(PrinterCalls, HandleGoesBackToTheSpoolerIfThereIsOne) {
  {
    FakeSpooler spooler(answers{{TRUE}});
    TPrinter printer(L"name", 8);
    EXPECT_EQ(spooler.calls, "OpenPrinterW(name, out, access 8)");
    EXPECT_EQ(static_cast<void*>(printer), INVALID_HANDLE_VALUE) << "the fake gives none";
  }
  FakeSpooler spooler(answers{{FALSE, ERROR_INVALID_HANDLE}});
  TPrinter(DoNotInitialize).AttachHandle(some_handle);
  EXPECT_EQ(spooler.calls, "ClosePrinter(printer)") << "the refusal is ignored";
}

TEST(PrinterCalls, DataOfNoBytesIsTheEmptyValueAndOtherAnswersThrow) {
  UnrealPrinter printer;
  FakeSpooler spooler(answers{{ERROR_SUCCESS, 0, {REG_SZ, 0}},
                              {ERROR_ACCESS_DENIED, 1},
                              {ERROR_MORE_DATA, 1, {REG_SZ, 4}},
                              {ERROR_MORE_DATA, 1, {REG_SZ, 6}}});
  EXPECT_TRUE(printer.GetPrinterDataW(L"data").empty());
  EXPECT_EQ(system_code([&] { printer.GetPrinterDataW(L"data"); }), ERROR_ACCESS_DENIED);
  EXPECT_EQ(system_code([&] { printer.GetPrinterDataW(L"data"); }), ERROR_MORE_DATA) << "grown";
}

TEST(PrinterCalls, DataBecomesAValueByItsTypeAndItsBytes) {
  EXPECT_EQ(data_of(REG_SZ, 6, std::string("a\0b\0\0\0", 6)), std::wstring(L"ab\0\0\0\0", 6));
  EXPECT_EQ(data_of(REG_SZ, 3, std::string("a\0b", 3)), std::wstring(L"ab\0", 3)) << "odd";
  EXPECT_EQ(data_of(REG_SZ, 8, std::string("a\0", 2)), std::wstring(L"a\0", 2)) << "shrunk";
  EXPECT_EQ(data_of(REG_DWORD, 4, "\x01\x02\x03\x84"), 0x84030201ul);
  EXPECT_EQ(data_of(REG_DWORD, 6, "\x01\x02\x03\x04\x05\x06"), 0x04030201ul);
  EXPECT_EQ(data_of(REG_DWORD, 2, "\x01\x02"), 0x0201ul);
  EXPECT_TRUE(data_of(REG_BINARY, 4, "\x01\x02\x03\x04").empty());
}

TEST(PrinterCalls, OnlyTextsAndNumbersAreStored) {
  std::string const text = "SetPrinterDataW(printer, data, 1, block, 5)";
  EXPECT_EQ(storing(L"ab\u0142cd"), text) << "a byte for each character";
  EXPECT_EQ(storing(std::vector<std::string>{"abcde", "f"}), text);
  std::string const number = "SetPrinterDataW(printer, data, 4, block, 4)";
  for (_value_t const& value : {_value_t(-1), _value_t(4'000'000'000ul)})
    EXPECT_EQ(storing(value), number);
  for (_value_t const& value : {_value_t(), _value_t(1.5), _value_t(true), _value_t(_time_t())})
    EXPECT_EQ(storing(value, 0), "");

  UnrealPrinter printer;
  FakeSpooler spooler(answers{{ERROR_ACCESS_DENIED, 1}});
  EXPECT_EQ(system_code([&] { printer.SetPrinterDataW(L"data", 1); }), ERROR_ACCESS_DENIED);
}

TEST(Printers, UnknownNameIsToldWithTheAccess) {
  try {
    TPrinter(L"no such printer", PRINTER_ACCESS_USE);
    FAIL() << "it opened";
  } catch (ESystemException const& error) {
    EXPECT_EQ(error["Code"].as_int(), ERROR_INVALID_PRINTER_NAME);
    EXPECT_EQ(error["Name"], L"no such printer");
    EXPECT_EQ(error["Access"], static_cast<unsigned long>(PRINTER_ACCESS_USE));
  }
}

TEST_F(Printer, RecordsNameItAndWhatIsSetReadsBack) {
  AutoPtr<PRINTER_INFO_2W> info, all;
  AutoPtr<PORT_INFO_2W> ports;
  printer.GetPrinterInfo(info);
  EXPECT_EQ(info->pPrinterName, scratch.name);
  std::wstring comment = L"behind the door";
  info->pComment = comment.data();
  printer.SetPrinterInfo(info);
  printer.GetPrinterInfo(info);
  EXPECT_EQ(info->pComment, comment);

  auto const count = TPrinter::EnumPrintersW(all, PRINTER_ENUM_LOCAL, nullptr);
  auto const is_it = [&](PRINTER_INFO_2W const& each) { return each.pPrinterName == scratch.name; };
  EXPECT_EQ(std::count_if(all.get(), all.get() + count, is_it), 1);
  ASSERT_GT(TPrinter::EnumPortsW(ports, nullptr), 0u);
  EXPECT_STRNE(ports->pPortName, L"");
}

TEST_F(Printer, DataOfAllKindsIsKept) {
  EXPECT_EQ(system_code([&] { printer.GetPrinterDataW(L"missing"); }), ERROR_FILE_NOT_FOUND);
  printer.SetPrinterDataW(L"trays", 3);
  EXPECT_EQ(printer.GetPrinterDataW(L"trays"), 3ul);
  wchar_t text[] = L"left", data[] = L"name";
  ASSERT_EQ(::SetPrinterDataW(printer, data, REG_SZ, reinterpret_cast<BYTE*>(text), sizeof text),
            ERROR_SUCCESS);
  EXPECT_EQ(printer.GetPrinterDataW(L"name"), std::wstring(L"left\0\0\0\0\0\0", 10));
  printer.SetPrinterDataW(L"half", L"abcd");
  std::wstring const half = printer.GetPrinterDataW(L"half");
  EXPECT_EQ(half.substr(0, half.find(L'\0')), L"ab") << "and not the rest";
}
