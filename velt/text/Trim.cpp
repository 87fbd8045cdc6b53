#include "velt/text/Trim.h"

#include <comdef.h>

#include <algorithm>
#include <cassert>
#include <string_view>

#include "velt/base/ConstString.h"
#include "velt/text/ComStringInternal.h"

namespace {

// Sets are usually short: a plain search beats a table, and filling one would cost
// more than the trimming.
template <class Char>
class character_set {
public:
  explicit character_set(Char const* characters) : members(characters) {}

  bool operator()(Char character) const {
    return std::find(members.begin(), members.end(), character) != members.end();
  }

private:
  std::basic_string_view<Char> members;
};

template <class Char>
std::basic_string_view<Char> without_left(std::basic_string_view<Char> text,
                                          character_set<Char> removable) {
  auto const first = std::find_if_not(text.begin(), text.end(), removable);
  return {first, text.end()};
}

template <class Char>
std::basic_string_view<Char> without_right(std::basic_string_view<Char> text,
                                           character_set<Char> removable) {
  auto const last = std::find_if_not(text.rbegin(), text.rend(), removable);
  return {text.begin(), last.base()};
}

enum class end { both, left, right };

template <end which, class Char>
std::basic_string_view<Char> trimmed(std::basic_string_view<Char> text, Char const* characters) {
  assert(characters);
  character_set<Char> const removable(characters);
  if constexpr (which != end::right) text = without_left(text, removable);
  if constexpr (which != end::left) text = without_right(text, removable);
  return text;
}

template <end which, class Char>
std::basic_string<Char> trimmed(std::basic_string<Char> const& text, Char const* characters) {
  return std::basic_string<Char>(trimmed<which>(std::basic_string_view<Char>(text), characters));
}

template <end which>
_bstr_t trimmed(_bstr_t const& text, wchar_t const* characters) {
  auto const whole = basic_const_string<wchar_t>(text).view();
  return velt::detail::make_bstr(trimmed<which>(whole, characters));
}

}  // namespace

std::string trim(std::string const& source, char const* characters) {
  return trimmed<end::both>(source, characters);
}
std::string triml(std::string const& source, char const* characters) {
  return trimmed<end::left>(source, characters);
}
std::string trimr(std::string const& source, char const* characters) {
  return trimmed<end::right>(source, characters);
}

std::wstring trim(std::wstring const& source, wchar_t const* characters) {
  return trimmed<end::both>(source, characters);
}
std::wstring triml(std::wstring const& source, wchar_t const* characters) {
  return trimmed<end::left>(source, characters);
}
std::wstring trimr(std::wstring const& source, wchar_t const* characters) {
  return trimmed<end::right>(source, characters);
}

template <std::same_as<_bstr_t> ComString>
ComString trim(ComString const& source, wchar_t const* characters) {
  return trimmed<end::both>(source, characters);
}
template <std::same_as<_bstr_t> ComString>
ComString triml(ComString const& source, wchar_t const* characters) {
  return trimmed<end::left>(source, characters);
}
template <std::same_as<_bstr_t> ComString>
ComString trimr(ComString const& source, wchar_t const* characters) {
  return trimmed<end::right>(source, characters);
}

template VELT_API _bstr_t trim(_bstr_t const&, wchar_t const*);
template VELT_API _bstr_t triml(_bstr_t const&, wchar_t const*);
template VELT_API _bstr_t trimr(_bstr_t const&, wchar_t const*);
