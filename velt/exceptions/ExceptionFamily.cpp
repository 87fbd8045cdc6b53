#include "velt/exceptions/ExceptionFamily.h"

#include <windows.h>

#include <comdef.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <memory>
#include <string>

namespace {

constexpr DWORD system_message = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM;
constexpr DWORD user_language = 0x400;

// The system's text of a code; empty if it has none.
std::wstring formatted_message(DWORD flags, DWORD code) {
  wchar_t* buffer = nullptr;
  DWORD const length = FormatMessageW(system_message | flags, nullptr, code, user_language,
                                      reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
  if (length == 0 || !buffer) return std::wstring();
  std::unique_ptr<wchar_t, decltype(&LocalFree)> const owner(buffer, LocalFree);
  return std::wstring(buffer, length);
}

std::wstring system_text(int code) {
  auto text = formatted_message(FORMAT_MESSAGE_IGNORE_INSERTS, static_cast<DWORD>(code));
  text.erase(text.find_last_not_of(L"\r\n") + 1);
  return text;
}

void put_runtime_text(EGeneric& exception, int code) {
  std::array<wchar_t, 1024> buffer;
  if (_wcserror_s(buffer.data(), buffer.size(), code) == 0)
    exception.put_value("Text", buffer.data());
}

std::string hexadecimal(long code) {
  char digits[8];
  auto const end =
      std::to_chars(digits, digits + sizeof digits, static_cast<std::uint32_t>(code), 16).ptr;
  return std::string(digits, end);
}

std::wstring text_of(wchar_t const* text) { return text ? text : L""; }

// The text that _com_error::ErrorMessage() is documented to give. The object itself
// is no use: its text is narrow or wide depending on how its user was compiled, and
// this compiler's version does not ignore inserts, so it loses messages that have any.
std::wstring com_text(HRESULT code) {
  auto text = formatted_message(FORMAT_MESSAGE_IGNORE_INSERTS, static_cast<DWORD>(code));
  if (text.ends_with(L'\n')) text.pop_back();
  if (text.ends_with(L'\r')) text.pop_back();
  if (!text.empty()) return text;

  constexpr DWORD first_dispatch_code = 0x80040200, last_dispatch_code = 0x8004FFFF;
  auto const pattern = static_cast<DWORD>(code);
  bool const from_dispatch = pattern > first_dispatch_code && pattern <= last_dispatch_code;
  std::array<wchar_t, 32> buffer;
  if (from_dispatch)
    _snwprintf(buffer.data(), buffer.size(), L"IDispatch error #%d",
               static_cast<int>(pattern - first_dispatch_code));
  else
    _snwprintf(buffer.data(), buffer.size(), L"Unknown error 0x%0lX", pattern);
  return buffer.data();
}

// Adds the answer to a question of IErrorInfo, if there is one.
void put_answer(EGeneric& exception, char const* name, IErrorInfo* info,
                HRESULT (STDMETHODCALLTYPE IErrorInfo::*question)(BSTR*)) {
  BSTR answer = nullptr;
  if (SUCCEEDED((info->*question)(&answer)) && answer)
    exception.put_value(name, _bstr_t(answer, false));
}

}  // namespace

namespace velt::detail {

int last_error() noexcept { return static_cast<int>(GetLastError()); }

}  // namespace velt::detail

ESystemException::ESystemException(int code)
    : EGeneric({"Code", code}, {"Text", system_text(code)}) {}
ESystemException::ESystemException(int code, P const& a)
    : EGeneric({"Code", code}, {"Text", system_text(code)}, a) {}
ESystemException::ESystemException(int code, P const& a, P const& b)
    : EGeneric({"Code", code}, {"Text", system_text(code)}, a, b) {}

ERuntimeException::ERuntimeException(int code) : EGeneric({"Code", code}) {
  put_runtime_text(*this, code);
}
ERuntimeException::ERuntimeException(int code, P const& a) : EGeneric({"Code", code}, a) {
  put_runtime_text(*this, code);
}
ERuntimeException::ERuntimeException(int code, P const& a, P const& b)
    : EGeneric({"Code", code}, a, b) {
  put_runtime_text(*this, code);
}

ELegacyException::ELegacyException(char const* type, char const* text, int code)
    : EGeneric({"Code", code}, {"Type", type}, {"Text", text}) {}

EComException::EComException(_com_error& error)
    : EGeneric({"HRESULT", static_cast<int>(error.Error())},
               {"Text", com_text(error.Error())},
               {"Description", text_of(error.Description())}) {}

EComException::EComException(long code, IErrorInfo* info) {
  put_value("Code", static_cast<int>(code));
  put_value("HRESULT", hexadecimal(code));
  auto const text = formatted_message(FORMAT_MESSAGE_MAX_WIDTH_MASK, static_cast<DWORD>(code));
  if (!text.empty()) put_value("Text", text);
  if (!info) return;
  put_answer(*this, "Description", info, &IErrorInfo::GetDescription);
  put_answer(*this, "Source", info, &IErrorInfo::GetSource);
}

EPurecallException::EPurecallException() : EGeneric({"Text", "Purecall"}) {}

EDeadLockException::EDeadLockException(std::string const& status)
    : EGeneric({"Text", "Dead-lock in multilock"}, {"Status", status}) {}

ENotImplemented::ENotImplemented(char const* file, int line, char const* function)
    : EGeneric({"Text", "Not implemented"}, {"SourceFile", file}, {"SourceLine", line},
               {"Function", function}) {}

void ThrowSystemException() { throw ESystemException(); }
void ThrowSystemException(unsigned long code) {
  throw ESystemException(static_cast<int>(code));
}

void throw_EGeneric_from_com_error(long code, IErrorInfo* info) {
  EComException const exception = [&] {
    std::unique_ptr<IErrorInfo, void (*)(IErrorInfo*)> const owner(
        info, [](IErrorInfo* p) { p->Release(); });
    return EComException(code, info);
  }();
  throw EComException(exception);
}

void OnSysLibExc(char const* type, char const* text, int code) {
  throw ELegacyException(type, text, code);
}

void _my_purecall_translator() { throw EPurecallException(); }
