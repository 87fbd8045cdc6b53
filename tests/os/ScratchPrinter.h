// Printers for one test.
#pragma once

#include <windows.h>

#include <winspool.h>

#include <string>

#include "tests/support/Imports.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/os/Printer.h"

namespace velt_test {

// A printer of the real spooler that prints into a file; it goes with the
// object. Throws ESystemException if it cannot be made.
class ScratchPrinter {
public:
  ScratchPrinter() {
    add_driver();
    PRINTER_INFO_2W info = {};
    info.pPrinterName = name.data();
    info.pPortName = const_cast<wchar_t*>(L"FILE:");
    info.pDriverName = const_cast<wchar_t*>(driver);
    info.pPrintProcessor = const_cast<wchar_t*>(L"WinPrint");
    info.pDatatype = const_cast<wchar_t*>(L"RAW");
    handle = AddPrinterW(nullptr, 2, reinterpret_cast<BYTE*>(&info));
    if (!handle) ThrowSystemException();
  }
  ~ScratchPrinter() {
    DeletePrinter(handle);
    ClosePrinter(handle);
  }
  ScratchPrinter(ScratchPrinter const&) = delete;

  static constexpr wchar_t const* driver = L"velt test driver";
  std::wstring name = L"velt test printer " + std::to_wstring(GetCurrentProcessId());

private:
  static void add_driver() {
    auto const file_name = const_cast<wchar_t*>(L"wineps.drv");
    DRIVER_INFO_3W info = {};
    info.cVersion = 3;
    info.pName = const_cast<wchar_t*>(driver);
    info.pEnvironment = const_cast<wchar_t*>(L"Windows x64");
    info.pDriverPath = info.pDataFile = info.pConfigFile = file_name;
    DWORD const flags = APD_COPY_NEW_FILES | APD_COPY_FROM_DIRECTORY;
    if (!AddPrinterDriverExW(nullptr, 3, reinterpret_cast<BYTE*>(&info), flags))
      ThrowSystemException();
  }

  HANDLE handle;
};

// One whose handle nobody else knows.
struct UnrealPrinter : TPrinter {
  UnrealPrinter() : TPrinter(DoNotInitialize) { AttachHandle(buffer); }
  ~UnrealPrinter() { DetachHandle(); }
};

}  // namespace velt_test
