// TPrinter: a printer of the platform's spooler as an object. It controls the
// printer and its jobs, fetches the spooler's records as blocks that the caller
// owns, and keeps named data with the printer. To print, give the handle to the
// platform's own calls (StartDocPrinter and its kind).
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

// The records are those of <winspool.h>; the level that a call asks for is that
// of the record it is given.
//
// Whatever fetches a record asks for its size, puts a new block into the AutoPtr
// in place of the old one, and asks again. Strings of the record lie in the same
// block, behind it. Where there is nothing to fetch the AutoPtr stays as it was.
// If the record has grown between the two calls the second one fails, and that
// is reported: nothing is tried again, and the new block, whose contents are
// then worth nothing, stays in the AutoPtr.
//
// Failures throw ESystemException with the spooler's code. Copies, assignments,
// CloseHandle and AttachHandle are THandle's: they duplicate and close handles of
// the kernel, which the platform as a rule refuses for one of the spooler, so an
// open printer should only be destroyed. Not synchronised.
class VELT_API TPrinter : public THandle {
public:
  TPrinter(_DoNotInitialize const&) noexcept {}
  // As OpenPrinterW.
  TPrinter(wchar_t const* name, unsigned long access);

  TPrinter(TPrinter const&) = default;
  TPrinter& operator=(TPrinter const&) = default;

  // Gives the handle back to the spooler, whose refusal is ignored.
  ~TPrinter() noexcept;

  // Opens the printer of this name, or with null the spooler of this machine;
  // `access` is the platform's. The new handle is stored over the old one, which
  // is not closed. The exception has "Name" and "Access" besides.
  void OpenPrinterW(wchar_t const* name, unsigned long access);

  // Commands of the platform: PRINTER_CONTROL_PAUSE, JOB_CONTROL_CANCEL ...
  void ControlPrinter(unsigned long command);
  void ControlJob(unsigned long jobId, unsigned long command);
  // The same, but answers false where the other throws.
  bool ControlJobSilent(unsigned long jobId, unsigned long command) noexcept;

  void GetPrinterInfo(AutoPtr<_PRINTER_INFO_1W>& info) const;
  void GetPrinterInfo(AutoPtr<_PRINTER_INFO_2W>& info) const;
  void GetPrinterInfo(AutoPtr<_PRINTER_INFO_3>& info) const;
  void GetPrinterInfo(AutoPtr<_PRINTER_INFO_4W>& info) const;

  void GetJobInfo(AutoPtr<_JOB_INFO_1W>& info, unsigned long jobId) const;
  void GetJobInfo(AutoPtr<_JOB_INFO_2W>& info, unsigned long jobId) const;
  void GetJobInfo(AutoPtr<_JOB_INFO_3>& info, unsigned long jobId) const;

  // At most `count` jobs from the one at place `first` on. Answer the number of
  // records in the block, 0 where there are no jobs.
  unsigned long EnumJobsW(AutoPtr<_JOB_INFO_1W>& jobs, unsigned long first,
                          unsigned long count) const;
  unsigned long EnumJobsW(AutoPtr<_JOB_INFO_2W>& jobs, unsigned long first,
                          unsigned long count) const;
  unsigned long EnumJobsW(AutoPtr<_JOB_INFO_3>& jobs, unsigned long first,
                          unsigned long count) const;

  // `flags` (PRINTER_ENUM_LOCAL ...) and `name` are the platform's; a null name
  // and a null server mean this machine. Answer the number of records.
  static unsigned long EnumPrintersW(AutoPtr<_PRINTER_INFO_1W>& printers, unsigned long flags,
                                     wchar_t const* name);
  static unsigned long EnumPrintersW(AutoPtr<_PRINTER_INFO_2W>& printers, unsigned long flags,
                                     wchar_t const* name);
  static unsigned long EnumPortsW(AutoPtr<_PORT_INFO_1W>& ports, wchar_t const* server);
  static unsigned long EnumPortsW(AutoPtr<_PORT_INFO_2W>& ports, wchar_t const* server);

  void SetPrinterInfo(AutoPtr<_PRINTER_INFO_2W> const& info);
  void SetPrinterInfo(AutoPtr<_PRINTER_INFO_3> const& info);
  void SetPrinterInfo(AutoPtr<_PRINTER_INFO_4W> const& info);

  void SetJobInfo(AutoPtr<_JOB_INFO_1W> const& info, unsigned long jobId);
  void SetJobInfo(AutoPtr<_JOB_INFO_2W> const& info, unsigned long jobId);
  void SetJobInfo(AutoPtr<_JOB_INFO_3> const& info, unsigned long jobId);

  // A number as unsigned long, text as std::wstring; the empty value for data of
  // any other type and for data of no bytes. The text has as many characters as
  // the data has bytes: the terminator, and NULs up to that length, are part of
  // it. Use c_str().
  _value_t GetPrinterDataW(wchar_t const* name) const;

  // Text and numbers (int, unsigned long); any other value is passed over
  // without a word. Of a text of n characters n bytes are stored, so the first
  // half of it, and no terminator.
  void SetPrinterDataW(wchar_t const* name, _value_t const& value);
};
