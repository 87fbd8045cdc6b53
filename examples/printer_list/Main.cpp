// Lists the printers of this machine, or tells more about the one that is named.
//
// Status: 0, or 2 if there is no such printer or nothing could be written.
#include <windows.h>

#include <winspool.h>

#include <string>

#include "examples/typed_values/Terminal.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/os/Printer.h"
#include "velt/text/Numbers.h"

namespace {

// A record has null for a text that it lacks.
std::wstring text_of(wchar_t const* text) { return text ? text : L""; }

void list_all() {
  AutoPtr<PRINTER_INFO_2W> block;
  auto const count = TPrinter::EnumPrintersW(
      block, PRINTER_ENUM_LOCAL | PRINTER_ENUM_CONNECTIONS, nullptr);
  if (count == 0) write(stream::output, L"no printers\n");
  for (unsigned long i = 0; i < count; ++i) {
    auto const& printer = block.get()[i];
    write(stream::output, padded(text_of(printer.pPrinterName), 36) + L' ' +
                              clipped(text_of(printer.pDriverName), 42) + L'\n');
  }
}

void tell_of(std::wstring const& name) {
  TPrinter const printer(name.c_str(), PRINTER_ACCESS_USE);
  AutoPtr<PRINTER_INFO_2W> info;
  printer.GetPrinterInfo(info);
  auto const line = [](std::wstring const& about, std::wstring const& text) {
    write(stream::output, padded(about, 9) + clipped(text, 70) + L'\n');
  };
  line(L"name", text_of(info->pPrinterName));
  line(L"driver", text_of(info->pDriverName));
  line(L"port", text_of(info->pPortName));
  line(L"jobs", itow(static_cast<int>(info->cJobs)));
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  SaveMiniDumpOnCppException = false;  // an unknown printer is not a defect
  try {
    if (count > 2)
      return complain(L"printer_list: more than one printer; usage: printer_list [PRINTER]"), 2;
    count == 1 ? list_all() : tell_of(arguments[1]);
    return 0;
  } catch (EGeneric& error) {
    if (!error["Name"].empty()) error.put_value("File", error["Name"]);
    complain(L"printer_list", error);
    return 2;
  }
}
