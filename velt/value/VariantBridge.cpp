#include "velt/value/KindsInternal.h"

namespace {

using velt::detail::by_kind;
using velt::detail::new_bstr;
using velt::detail::own_element;
using velt::detail::read;

// Makes the string directly, without the counted record of a _bstr_t.
BSTR text_of(_value_t_data const& held) {
  if (auto const wide = own_element<std::wstring>(&held)) return new_bstr(*wide);
  if (auto const narrow = own_element<std::string>(&held)) return new_bstr(*narrow);
  return read<_bstr_t>(held).copy();
}

_variant_t variant_of(BSTR text) {
  VARIANT result;
  V_VT(&result) = VT_BSTR;
  V_BSTR(&result) = text;
  return _variant_t(result, false);
}

}  // namespace

// _variant_t gives each type the tag that its holders report, except a date, whose
// tag has to be named.
_variant_t _value_t::as_variant() const {
  return by_kind<_variant_t>(*this, []<class Kind>(_value_t_data const& held) -> _variant_t {
    if constexpr (std::is_same_v<Kind, velt::detail::unknown_kind> ||
                  velt::detail::is_object<Kind>)
      return _variant_t();
    else if constexpr (velt::detail::is_text<Kind>)
      return variant_of(text_of(held));
    else if constexpr (std::is_same_v<Kind, _time_t>)
      return _variant_t(read<_time_t>(held).varianttime(), VT_DATE);
    else
      return _variant_t(read<Kind>(held));
  });
}
