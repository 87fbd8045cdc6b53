// TPrinter: a printer of the platform's spooler as an object. It controls the printer
// and its jobs, fetches the spooler's records as blocks that the caller owns, and stores
// named data with the printer. To print, pass the object to the platform's own calls,
// such as StartDocPrinter.
#pragma once

#include "velt/base/AutoPtr.h"
#include "velt/base/DoNotInitialize.h"
#include "velt/base/Export.h"
#include "velt/locks/Handle.h"
#include "velt/value/Value.h"

struct _PRINTER_INFO_1W;
struct _PRINTER_INFO_2W;
struct _PRINTER_INFO_3;
struct _PRINTER_INFO_4W;
struct _JOB_INFO_1W;
struct _JOB_INFO_2W;
struct _JOB_INFO_3;
struct _PORT_INFO_1W;
struct _PORT_INFO_2W;

// The records are those of <winspool.h>. The type of the record selects the level of the
// call.
//
// An operation that fetches a record calls the spooler twice: for the size, and for the
// data. In between it replaces the block of the AutoPtr by a new one. The strings of a
// record lie behind it in the same block. If there is nothing to fetch, the AutoPtr does
// not change. If the record grows between the two calls, the second one fails; the
// operation throws and does not try again, and the AutoPtr holds the new block with
// meaningless contents.
//
// Failures throw ESystemException with the spooler's code. Copying, assignment,
// CloseHandle and AttachHandle are THandle's: they duplicate and close kernel handles,
// and the platform normally refuses that for a handle of the spooler. So do not copy,
// assign or close an open printer; destroy it. Not synchronised.
class VELT_API TPrinter : public THandle {
public:
  // No printer yet: call OpenPrinterW.
  TPrinter(_DoNotInitialize const&) noexcept {}
  // Calls OpenPrinterW.
  TPrinter(wchar_t const* name, unsigned long access);

  TPrinter(TPrinter const&) = default;
  TPrinter& operator=(TPrinter const&) = default;

  // Returns the handle to the spooler, and ignores a failure.
  ~TPrinter() noexcept;

  // Opens the printer with this name; null means the spooler of this machine. The values
  // of `access` are the platform's. The new handle overwrites the old one, which is not
  // closed. The exception of a failure also has "Name" and "Access".
  void OpenPrinterW(wchar_t const* name, unsigned long access);

  // The commands are the platform's: PRINTER_CONTROL_PAUSE, JOB_CONTROL_CANCEL ...
  void ControlPrinter(unsigned long command);
  void ControlJob(unsigned long jobId, unsigned long command);
  // Like ControlJob, but returns false instead of throwing.
  bool ControlJobSilent(unsigned long jobId, unsigned long command) noexcept;

  // Replaces the block by the record of the printer; the type chooses its level.
  void GetPrinterInfo(AutoPtr<_PRINTER_INFO_1W>& info) const;
  void GetPrinterInfo(AutoPtr<_PRINTER_INFO_2W>& info) const;
  void GetPrinterInfo(AutoPtr<_PRINTER_INFO_3>& info) const;
  void GetPrinterInfo(AutoPtr<_PRINTER_INFO_4W>& info) const;

  // Replaces the block by the record of the job.
  void GetJobInfo(AutoPtr<_JOB_INFO_1W>& info, unsigned long jobId) const;
  void GetJobInfo(AutoPtr<_JOB_INFO_2W>& info, unsigned long jobId) const;
  void GetJobInfo(AutoPtr<_JOB_INFO_3>& info, unsigned long jobId) const;

  // At most `count` jobs, from position `first` on. These return the number of records in
  // the block, 0 if there are no jobs.
  unsigned long EnumJobsW(AutoPtr<_JOB_INFO_1W>& jobs, unsigned long first,
                          unsigned long count) const;
  unsigned long EnumJobsW(AutoPtr<_JOB_INFO_2W>& jobs, unsigned long first,
                          unsigned long count) const;
  unsigned long EnumJobsW(AutoPtr<_JOB_INFO_3>& jobs, unsigned long first,
                          unsigned long count) const;

  // `flags` (PRINTER_ENUM_LOCAL ...) and `name` are the platform's. A null name and a null
  // server mean this machine. These return the number of records.
  static unsigned long EnumPrintersW(AutoPtr<_PRINTER_INFO_1W>& printers, unsigned long flags,
                                     wchar_t const* name);
  static unsigned long EnumPrintersW(AutoPtr<_PRINTER_INFO_2W>& printers, unsigned long flags,
                                     wchar_t const* name);
  static unsigned long EnumPortsW(AutoPtr<_PORT_INFO_1W>& ports, wchar_t const* server);
  static unsigned long EnumPortsW(AutoPtr<_PORT_INFO_2W>& ports, wchar_t const* server);

  // Changes the printer to what the record says.
  void SetPrinterInfo(AutoPtr<_PRINTER_INFO_2W> const& info);
  void SetPrinterInfo(AutoPtr<_PRINTER_INFO_3> const& info);
  void SetPrinterInfo(AutoPtr<_PRINTER_INFO_4W> const& info);

  // Changes the job to what the record says.
  void SetJobInfo(AutoPtr<_JOB_INFO_1W> const& info, unsigned long jobId);
  void SetJobInfo(AutoPtr<_JOB_INFO_2W> const& info, unsigned long jobId);
  void SetJobInfo(AutoPtr<_JOB_INFO_3> const& info, unsigned long jobId);

  // Returns a number as unsigned long and text as std::wstring; the empty value for data
  // of any other type and for empty data. The text has as many characters as the data
  // has bytes: the terminator, and NULs up to that length, are part of it. Use c_str().
  _value_t GetPrinterDataW(wchar_t const* name) const;

  // Stores text and numbers (int, unsigned long); ignores any other value. Stores n bytes
  // of an n-character text: its first half, unterminated.
  void SetPrinterDataW(wchar_t const* name, _value_t const& value);
};
