#include <string_view>

#include "velt/base/ConstString.h"
#include "velt/text/ComStringInternal.h"
#include "velt/text/Encoding.h"
#include "velt/value/ConversionsInternal.h"

namespace velt::detail {
namespace {

constexpr int ansi_code_page = 0;

std::wstring_view wide_view(_bstr_t const& text) {
  return {static_cast<wchar_t const*>(text), text.length()};
}

}  // namespace

void convert_text(std::string const& from, std::wstring& to) {
  to = as_wstring(from, ansi_code_page);
}

void convert_text(std::wstring const& from, std::string& to) {
  to = as_string(from, ansi_code_page);
}

BSTR new_bstr(std::string const& text) {
  return _com_util::ConvertStringToBSTR(basic_const_string<char>(text).c_str());
}

BSTR new_bstr(std::wstring const& text) {
  BSTR const result = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
  if (!result) raise_com_error(E_OUTOFMEMORY);
  return result;
}

void convert_text(std::string const& from, _bstr_t& to) { to = adopt_bstr(new_bstr(from)); }
void convert_text(std::wstring const& from, _bstr_t& to) { to = adopt_bstr(new_bstr(from)); }

void convert_text(_bstr_t const& from, std::wstring& to) { to = wide_view(from); }

void convert_text(_bstr_t const& from, std::string& to) {
  // Not by the string's own narrow copy: it is made on first use, without a lock,
  // and ends at the first NUL.
  to = as_string(from, ansi_code_page);
  if (to.size() > from.length()) to.resize(from.length());
}

bool element_equal(_bstr_t const& a, _bstr_t const& b) { return wide_view(a) == wide_view(b); }
bool element_less(_bstr_t const& a, _bstr_t const& b) { return wide_view(a) < wide_view(b); }

}  // namespace velt::detail
