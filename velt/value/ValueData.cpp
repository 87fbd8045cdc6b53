#include "velt/value/ValueData.h"

#include <comutil.h>

#include "velt/value/HolderCacheInternal.h"
#include "velt/value/Value.h"

using velt::detail::throw_bad_cast;

_value_t_data::~_value_t_data() = default;

unsigned __int64 _value_t_data::size() const { return 1; }
bool _value_t_data::container() const { return false; }
bool _value_t_data::object() const { return false; }

#define VELT_REFUSE(T, TAG)                                                                  \
  T _value_t_data::get(T const*) const { throw_bad_cast(type(), typeid(T)); }                \
  T const* _value_t_data::getp(T const*) const { throw_bad_cast(type(), typeid(T)); }        \
  void _value_t_data::put(T const&) { throw_bad_cast(typeid(T), type()); }                   \
  void _value_t_data::push_back(T const&) { throw_bad_cast(typeid(T), type()); }
VELT_ELEMENT_TYPES(VELT_REFUSE)
#undef VELT_REFUSE

_value_t_data* _value_t_data::get(unsigned __int64) const {
  throw_bad_cast(type(), typeid(_value_t_data const*));
}

_value_t_data* _value_t_data::get(unsigned __int64) {
  throw_bad_cast(type(), typeid(_value_t_data*));
}

void _value_t_data::push_back(_value_t const& value) { throw_bad_cast(value.type(), type()); }

void* _value_t_data::operator new(std::size_t size) {
  return velt::detail::allocate_holder(size);
}

void _value_t_data::operator delete(void* block, std::size_t size) noexcept {
  velt::detail::free_holder(block, size);
}
