#include "velt/faults/StructuredException.h"

#include <windows.h>

#include <string>

#include "velt/faults/StackOverflowException.h"
#include "velt/faults/TranslatorInternal.h"
#include "velt/text/Format.h"

namespace {

// A row holds for all codes from `first` to `last`.
struct row {
  unsigned int first, last;
  char const* text;
};
constexpr row texts[] = {
    {0x80000002, 0x80000002, "Datatype Misalignment"},
    {0x80000003, 0x80000003, "Breakpoint"},
    {0x80000004, 0x80000004, "Debugger Exception"},
    {0xC0000005, 0xC0000005, "Access Violation"},
    {0xC0000006, 0xC0000006, "Page Fault"},
    {0xC0000017, 0xC0000017, "No Memory"},
    {0xC000001D, 0xC000001D, "Illegal Instruction"},
    {0xC0000025, 0xC0000025, "Noncontinuable Exception"},
    {0xC0000026, 0xC0000026, "Invalid Disposition"},
    {0xC000008C, 0xC000008C, "Array Bounds Exceeded"},
    {0xC000008D, 0xC0000093, "FPU Error"},
    {0xC0000094, 0xC0000094, "Divide by Zero"},
    {0xC0000095, 0xC0000095, "Integer Overflow"},
    {0xC0000096, 0xC0000096, "Privileged Instruction"},
    {0xC00000FD, 0xC00000FD, "Stack Overflow"},
    {0xC00002B4, 0xC00002B5, "FPU Error"},
};

// Any access that is not a read counts as a write, even the execution of data.
std::string access(EXCEPTION_RECORD const& record) {
  ULONG_PTR const address = record.ExceptionInformation[1];
  return format_string(
      record.ExceptionInformation[0] ? " (write to 0x%llx)" : " (read from 0x%llx)", address);
}

// Empty if the code has no text.
std::string text_of(unsigned int code, EXCEPTION_RECORD const& record) {
  for (auto const& [first, last, text] : texts)
    if (first <= code && code <= last)
      return code == EXCEPTION_ACCESS_VIOLATION ? text + access(record) : text;
  return {};
}

// Values of the exception are 32 bits wide; its stack holds whole addresses.
int low_half(ULONG_PTR value) { return static_cast<int>(value); }

void TranslateStructuredException(unsigned int code, _EXCEPTION_POINTERS* pointers) {
  if (code == EXCEPTION_STACK_OVERFLOW)
    EStackOverflowException::Throw(pointers, GetCurrentThreadId());
  throw EStructuredException(code, pointers, GetCurrentThreadId());
}

}  // namespace

EStructuredException::EStructuredException() = default;

EStructuredException::EStructuredException(unsigned int code, _EXCEPTION_POINTERS* pointers,
                                           unsigned long) {
  EXCEPTION_RECORD const& record = *pointers->ExceptionRecord;
  if (auto const text = text_of(code, record); !text.empty()) put_value("Text", text);
  put_value("Code", static_cast<int>(code));
  put_value("Address", low_half(reinterpret_cast<ULONG_PTR>(record.ExceptionAddress)));
  for (DWORD i = 0; i < record.NumberParameters; ++i)
    put_value(std::string("Parameter") + static_cast<char>('0' + i),
              low_half(record.ExceptionInformation[i]));
  ExtendDebugInformation(pointers);
  move_to_back("Stack");
}

redirect_structured_exceptions::redirect_structured_exceptions() noexcept {
  velt::detail::set_translator(TranslateStructuredException);
}

temporary_redirect_structured_exceptions::temporary_redirect_structured_exceptions() noexcept
    : previous(velt::detail::set_translator(TranslateStructuredException)) {}

temporary_redirect_structured_exceptions::~temporary_redirect_structured_exceptions() {
  velt::detail::set_translator(previous);
}
