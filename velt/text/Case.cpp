#include "velt/text/Case.h"

#include <comdef.h>

#include <algorithm>

#include "velt/text/ComStringInternal.h"
#include "velt/text/UserLocaleInternal.h"

namespace {

enum class letter_case { lower, upper };

template <letter_case wanted, class Char>
void change_case(Char* first, Char const* last) {
  auto const& letters = velt::detail::user_ctype<Char>();
  if constexpr (wanted == letter_case::lower)
    letters.tolower(first, last);
  else
    letters.toupper(first, last);
}

template <letter_case wanted, class Char>
std::basic_string<Char> in_case(std::basic_string<Char> text) {
  change_case<wanted>(text.data(), text.data() + text.size());
  return text;
}

template <letter_case wanted>
_bstr_t in_case(_bstr_t const& source) {
  auto const length = source.length();
  if (length == 0) return source;
  auto const block = velt::detail::new_bstr_block(length);
  std::copy_n(static_cast<wchar_t const*>(source), length, block);
  change_case<wanted>(block, block + length);
  return velt::detail::adopt_bstr(block);
}

}  // namespace

std::string strlower(std::string const& source) { return in_case<letter_case::lower>(source); }
std::string strupper(std::string const& source) { return in_case<letter_case::upper>(source); }

std::wstring strlower(std::wstring const& source) { return in_case<letter_case::lower>(source); }
std::wstring strupper(std::wstring const& source) { return in_case<letter_case::upper>(source); }

template <std::same_as<_bstr_t> ComString>
ComString strlower(ComString const& source) {
  return in_case<letter_case::lower>(source);
}
template <std::same_as<_bstr_t> ComString>
ComString strupper(ComString const& source) {
  return in_case<letter_case::upper>(source);
}

template VELT_API _bstr_t strlower(_bstr_t const&);
template VELT_API _bstr_t strupper(_bstr_t const&);
