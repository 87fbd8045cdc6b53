#include "velt/os/Printer.h"

#include <windows.h>

#include <delayimp.h>
#include <winspool.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

#include "velt/base/CheckInternal.h"
#include "velt/exceptions/ExceptionFamily.h"

using velt::detail::check;

namespace {

// The table of the calls that are bound late is in a section that newer linkers write
// protect, although the late binding writes to it.
FARPROC WINAPI let_table_be_written(unsigned int event, DelayLoadInfo* call) {
  DWORD before;
  if (event == dliNotePreGetProcAddress)
    VirtualProtect(call->ppfn, sizeof *call->ppfn, PAGE_READWRITE, &before);
  return nullptr;
}

}  // namespace

// Called by the compiler's late binding.
PfnDliHook __pfnDliNotifyHook2 = let_table_be_written;

namespace {

template <class Record>
inline constexpr DWORD level_of = 0;
template <>
inline constexpr DWORD level_of<PRINTER_INFO_1W> = 1;
template <>
inline constexpr DWORD level_of<PRINTER_INFO_2W> = 2;
template <>
inline constexpr DWORD level_of<PRINTER_INFO_3> = 3;
template <>
inline constexpr DWORD level_of<PRINTER_INFO_4W> = 4;
template <>
inline constexpr DWORD level_of<JOB_INFO_1W> = 1;
template <>
inline constexpr DWORD level_of<JOB_INFO_2W> = 2;
template <>
inline constexpr DWORD level_of<JOB_INFO_3> = 3;
template <>
inline constexpr DWORD level_of<PORT_INFO_1W> = 1;
template <>
inline constexpr DWORD level_of<PORT_INFO_2W> = 2;

// The spooler's functions take pointers to non-const, but do not write through them.
wchar_t* writable(wchar_t const* text) { return const_cast<wchar_t*>(text); }

template <class Record>
BYTE* bytes(AutoPtr<Record> const& block) {
  return reinterpret_cast<BYTE*>(block.get());
}

// `call` takes the level, the block, its size, and where to store the needed size. It
// returns what the platform returns.
template <class Record, class Call>
void fetch(AutoPtr<Record>& block, Call const& call) {
  constexpr DWORD level = level_of<Record>;
  static_assert(level != 0, "a record whose level is not listed");
  DWORD needed = 0;
  if (call(level, nullptr, 0, &needed)) return;
  check(GetLastError() == ERROR_INSUFFICIENT_BUFFER);
  block.reset(static_cast<Record*>(::operator new(needed)));
  check(call(level, bytes(block), needed, &needed));
}

// The same for calls that also store the number of records.
template <class Record, class Call>
DWORD fetch_list(AutoPtr<Record>& block, Call const& call) {
  DWORD returned = 0;
  fetch(block, [&](DWORD level, BYTE* place, DWORD size, DWORD* needed) {
    return call(level, place, size, needed, &returned);
  });
  return returned;
}

template <class Record>
void fetch_printer(HANDLE printer, AutoPtr<Record>& info) {
  fetch(info, [=](auto... rest) { return ::GetPrinterW(printer, rest...); });
}

template <class Record>
void fetch_job(HANDLE printer, DWORD job, AutoPtr<Record>& info) {
  fetch(info, [=](auto... rest) { return ::GetJobW(printer, job, rest...); });
}

template <class Record>
DWORD fetch_jobs(HANDLE printer, DWORD first, DWORD count, AutoPtr<Record>& jobs) {
  return fetch_list(
      jobs, [=](auto... rest) { return ::EnumJobsW(printer, first, count, rest...); });
}

template <class Record>
DWORD fetch_printers(DWORD flags, wchar_t const* name, AutoPtr<Record>& printers) {
  return fetch_list(
      printers, [=](auto... rest) { return ::EnumPrintersW(flags, writable(name), rest...); });
}

template <class Record>
DWORD fetch_ports(wchar_t const* server, AutoPtr<Record>& ports) {
  return fetch_list(ports, [=](auto... rest) { return ::EnumPortsW(writable(server), rest...); });
}

template <class Record>
void set_printer(HANDLE printer, AutoPtr<Record> const& info) {
  check(::SetPrinterW(printer, level_of<Record>, bytes(info), 0));
}

template <class Record>
void set_job(HANDLE printer, DWORD job, AutoPtr<Record> const& info) {
  check(::SetJobW(printer, job, level_of<Record>, bytes(info), 0));
}

// The calls for named data return the error code itself.
void expect_success(DWORD code) {
  if (code != ERROR_SUCCESS) ThrowSystemException(code);
}

void store(HANDLE printer, wchar_t const* name, DWORD type, void const* data, DWORD size) {
  auto const start = static_cast<BYTE*>(const_cast<void*>(data));
  expect_success(::SetPrinterDataW(printer, writable(name), type, start, size));
}

unsigned long number_in(std::wstring const& block, DWORD size) {
  unsigned long number = 0;
  std::memcpy(&number, block.data(), std::min<std::size_t>(size, sizeof number));
  return number;
}

}  // namespace

TPrinter::TPrinter(wchar_t const* name, unsigned long access) { OpenPrinterW(name, access); }

// Null, so that THandle does not close a handle of the spooler.
TPrinter::~TPrinter() noexcept {
  if (IsValidHandle()) ::ClosePrinter(handle);
  handle = nullptr;
}

void TPrinter::OpenPrinterW(wchar_t const* name, unsigned long access) {
  PRINTER_DEFAULTSW defaults = {nullptr, nullptr, access};
  if (::OpenPrinterW(writable(name), &handle, &defaults)) return;
  auto const code = static_cast<int>(GetLastError());
  throw ESystemException(code, {"Name", name ? name : L""}, {"Access", access});
}

void TPrinter::ControlPrinter(unsigned long command) {
  check(::SetPrinterW(handle, 0, nullptr, command));
}

void TPrinter::ControlJob(unsigned long jobId, unsigned long command) {
  check(ControlJobSilent(jobId, command));
}

bool TPrinter::ControlJobSilent(unsigned long jobId, unsigned long command) noexcept {
  return ::SetJobW(handle, jobId, 0, nullptr, command);
}

void TPrinter::GetPrinterInfo(AutoPtr<PRINTER_INFO_1W>& info) const { fetch_printer(handle, info); }
void TPrinter::GetPrinterInfo(AutoPtr<PRINTER_INFO_2W>& info) const { fetch_printer(handle, info); }
void TPrinter::GetPrinterInfo(AutoPtr<PRINTER_INFO_3>& info) const { fetch_printer(handle, info); }
void TPrinter::GetPrinterInfo(AutoPtr<PRINTER_INFO_4W>& info) const { fetch_printer(handle, info); }

void TPrinter::GetJobInfo(AutoPtr<JOB_INFO_1W>& info, unsigned long jobId) const {
  fetch_job(handle, jobId, info);
}
void TPrinter::GetJobInfo(AutoPtr<JOB_INFO_2W>& info, unsigned long jobId) const {
  fetch_job(handle, jobId, info);
}
void TPrinter::GetJobInfo(AutoPtr<JOB_INFO_3>& info, unsigned long jobId) const {
  fetch_job(handle, jobId, info);
}

unsigned long TPrinter::EnumJobsW(AutoPtr<JOB_INFO_1W>& jobs, unsigned long first,
                                  unsigned long count) const {
  return fetch_jobs(handle, first, count, jobs);
}
unsigned long TPrinter::EnumJobsW(AutoPtr<JOB_INFO_2W>& jobs, unsigned long first,
                                  unsigned long count) const {
  return fetch_jobs(handle, first, count, jobs);
}
unsigned long TPrinter::EnumJobsW(AutoPtr<JOB_INFO_3>& jobs, unsigned long first,
                                  unsigned long count) const {
  return fetch_jobs(handle, first, count, jobs);
}

unsigned long TPrinter::EnumPrintersW(AutoPtr<PRINTER_INFO_1W>& printers, unsigned long flags,
                                      wchar_t const* name) {
  return fetch_printers(flags, name, printers);
}
unsigned long TPrinter::EnumPrintersW(AutoPtr<PRINTER_INFO_2W>& printers, unsigned long flags,
                                      wchar_t const* name) {
  return fetch_printers(flags, name, printers);
}

unsigned long TPrinter::EnumPortsW(AutoPtr<PORT_INFO_1W>& ports, wchar_t const* server) {
  return fetch_ports(server, ports);
}
unsigned long TPrinter::EnumPortsW(AutoPtr<PORT_INFO_2W>& ports, wchar_t const* server) {
  return fetch_ports(server, ports);
}

void TPrinter::SetPrinterInfo(AutoPtr<PRINTER_INFO_2W> const& info) { set_printer(handle, info); }
void TPrinter::SetPrinterInfo(AutoPtr<PRINTER_INFO_3> const& info) { set_printer(handle, info); }
void TPrinter::SetPrinterInfo(AutoPtr<PRINTER_INFO_4W> const& info) { set_printer(handle, info); }

void TPrinter::SetJobInfo(AutoPtr<JOB_INFO_1W> const& info, unsigned long jobId) {
  set_job(handle, jobId, info);
}
void TPrinter::SetJobInfo(AutoPtr<JOB_INFO_2W> const& info, unsigned long jobId) {
  set_job(handle, jobId, info);
}
void TPrinter::SetJobInfo(AutoPtr<JOB_INFO_3> const& info, unsigned long jobId) {
  set_job(handle, jobId, info);
}

_value_t TPrinter::GetPrinterDataW(wchar_t const* name) const {
  DWORD type = REG_NONE, size = 0;
  auto const call = [&](BYTE* place) {
    return ::GetPrinterDataW(handle, writable(name), &type, place, size, &size);
  };
  DWORD const sized = call(nullptr);
  if (sized == ERROR_SUCCESS) return {};
  if (sized != ERROR_MORE_DATA) ThrowSystemException(sized);

  // One character for each byte: the length of a text is its number of bytes.
  std::wstring block(size, L'\0');
  expect_success(call(reinterpret_cast<BYTE*>(block.data())));
  if (type == REG_DWORD) return number_in(block, size);
  if (type != REG_SZ) return {};
  block.resize(size);
  return block;
}

void TPrinter::SetPrinterDataW(wchar_t const* name, _value_t const& value) {
  using velt::detail::variant_tag;
  if (value.empty()) return;
  switch (value.holder()->vartype()) {
    case variant_tag<std::wstring>: {
      auto const text = value.get<std::wstring>();
      // The number of characters goes in as the number of bytes; programs that read the
      // data expect this.
      return store(handle, name, REG_SZ, text.data(), static_cast<DWORD>(text.size()));
    }
    case variant_tag<unsigned long>:
    case variant_tag<int>: {
      auto const number = value.get<unsigned long>();
      return store(handle, name, REG_DWORD, &number, sizeof number);
    }
  }
}
