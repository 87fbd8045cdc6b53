#include "velt/value/Value.h"

#include <comutil.h>

#include <cassert>

#include "velt/value/HoldersInternal.h"

namespace {

template <class T>
SmartPtr<_value_t_data> make_scalar(T&& value) {
  using holder = _value_t_data_t<std::remove_cvref_t<T>>;
  return SmartPtr<_value_t_data>::adopt_new(new holder(std::forward<T>(value)));
}

template <class Char>
std::basic_string<Char> string_of(basic_const_string<Char> const& text) {
  return std::basic_string<Char>(text.view());
}

// Is a greater than b, for a scalar of the type T? Then b, read as a T, is less.
template <class T>
bool scalar_greater(_value_t_data const& a, _value_t_data const& b) {
  T const* const tag = nullptr;
  return velt::detail::element_less(b.get(tag), a.get(tag));
}

// Like less(), lets the type of a decide how b is read.
bool holder_greater(_value_t_data const& a, _value_t_data const& b) {
  if (a.container()) {
    a.less(b);  // throws if the element types differ
    return SmartPtr<_value_t_data>(b.to_container())->less(a);
  }
#define VELT_GREATER(T, TAG) \
  if (a.type() == typeid(T)) return scalar_greater<T>(a, b);
  VELT_ELEMENT_TYPES(VELT_GREATER)
#undef VELT_GREATER
  return b.less(a);
}

}  // namespace

// Copy-on-write: shared content is copied before it is written. Both return the
// holder that they replaced, or null. The caller keeps it until the write is done,
// since the new element may lie in it.
_value_t::holder_handle _value_t::make_private() {
  if (data.use_count() == 1) return nullptr;
  return data.exchange(data->clone());
}

_value_t::holder_handle _value_t::make_private_sequence() {
  if (data->container()) return make_private();
  return data.exchange(data->to_container());
}

template <class T>
_value_t& _value_t::assign(T const& value) {
  if (empty()) {
    data = make_scalar(value);
  } else {
    holder_handle const replaced = make_private();
    data->put(value);
  }
  return *this;
}

template <class T>
void _value_t::append(T const& value) {
  holder_handle const replaced = make_private_sequence();
  data->push_back(value);
}

#define VELT_FRONT(T, TAG)                                         \
  _value_t::_value_t(T const& value) : data(make_scalar(value)) {} \
  _value_t& _value_t::operator=(T const& value) { return assign(value); } \
  _value_t::operator T() const { return get<T>(); }                \
  void _value_t::push_back(T const& value) {                       \
    if (empty())                                                   \
      data = make_scalar(value);                                   \
    else                                                           \
      append(value);                                               \
  }
VELT_ELEMENT_TYPES(VELT_FRONT)
#undef VELT_FRONT

_value_t::_value_t(char const* text) : _value_t(basic_const_string<char>(text)) {}
_value_t::_value_t(wchar_t const* text) : _value_t(basic_const_string<wchar_t>(text)) {}
_value_t::_value_t(basic_const_string<char> const& text) : data(make_scalar(string_of(text))) {}
_value_t::_value_t(basic_const_string<wchar_t> const& text)
    : data(make_scalar(string_of(text))) {}
_value_t::_value_t(SmartPtrObj* object) : _value_t(SmartPtr<SmartPtrObj>(object)) {}
_value_t::_value_t(SmartPtrObj const* object) : _value_t(SmartPtr<const SmartPtrObj>(object)) {}

_value_t& _value_t::operator=(char const* text) { return assign(std::string(text)); }
_value_t& _value_t::operator=(wchar_t const* text) { return assign(std::wstring(text)); }
_value_t& _value_t::operator=(basic_const_string<char> const& text) {
  return assign(string_of(text));
}
_value_t& _value_t::operator=(basic_const_string<wchar_t> const& text) {
  return assign(string_of(text));
}
_value_t& _value_t::operator=(SmartPtrObj* object) {
  return assign(SmartPtr<SmartPtrObj>(object));
}
_value_t& _value_t::operator=(SmartPtrObj const* object) {
  return assign(SmartPtr<const SmartPtrObj>(object));
}

void _value_t::push_back(SmartPtrObj* object) { push_back(SmartPtr<SmartPtrObj>(object)); }
void _value_t::push_back(SmartPtrObj const* object) {
  push_back(SmartPtr<const SmartPtrObj>(object));
}

void _value_t::push_back(_value_t const& value) {
  assert(!value.empty());
  if (empty())
    data = value.data->clone();
  else
    append(value);
}

const _value_t _value_t::operator[](unsigned __int64 index) const {
  assert(!empty());
  return _value_t(static_cast<_value_t_data const*>(data.get())->get(index));
}

_value_t _value_t::operator[](unsigned __int64 index) {
  assert(!empty());
  return _value_t(data->get(index));
}

bool _value_t::equal(_value_t const& other) const {
  if (empty() || other.empty()) return empty() == other.empty();
  return data->equal(*other.data);
}

bool _value_t::less(_value_t const& other) const {
  if (empty() || other.empty()) return empty() && !other.empty();
  return data->less(*other.data);
}

bool _value_t::greater(_value_t const& other) const {
  if (empty() || other.empty()) return !empty() && other.empty();
  return holder_greater(*data, *other.data);
}
