// The kinds of holders. The lenient accessors and as_variant() choose their rules by
// the kind.
#pragma once

#include <comutil.h>

#include "velt/value/HoldersInternal.h"
#include "velt/value/Value.h"

namespace velt::detail {

// Stands for the kind of a client's own holder.
struct unknown_kind {};

// Reads strictly, without a virtual call if the holder is a _value_t_data_t<T>.
template <class T>
T read(_value_t_data const& held) {
  if (auto const element = own_element<T>(&held)) return *element;
  return held.get(static_cast<T const*>(nullptr));
}

// Calls rule.operator()<Kind>(held) for the kind of the holder. All three texts are
// of the kind std::string, and both handles of objects of the kind
// SmartPtr<const SmartPtrObj>. The empty value throws EBadCastException from void to
// Result.
template <class Result, class Rule>
Result by_kind(_value_t const& value, Rule const& rule) {
  using object_handle = SmartPtr<const SmartPtrObj>;
  if (value.empty()) throw_bad_cast(typeid(void), typeid(Result));
  _value_t_data const& held = *value.holder();
  switch (held.vartype()) {
    case variant_tag<double>: return rule.template operator()<double>(held);
    case variant_tag<_time_t>: return rule.template operator()<_time_t>(held);
    case variant_tag<std::string>: return rule.template operator()<std::string>(held);
    case variant_tag<bool>: return rule.template operator()<bool>(held);
    case variant_tag<object_handle>: return rule.template operator()<object_handle>(held);
    case variant_tag<unsigned long>: return rule.template operator()<unsigned long>(held);
    case variant_tag<__int64>: return rule.template operator()<__int64>(held);
    case variant_tag<int>: return rule.template operator()<int>(held);
    default: return rule.template operator()<unknown_kind>(held);
  }
}

}  // namespace velt::detail
