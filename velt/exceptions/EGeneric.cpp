#include "velt/exceptions/EGeneric.h"

#include <algorithm>
#include <initializer_list>
#include <stdexcept>

#include "velt/base/TypeName.h"

namespace {

// The most values that a list takes.
constexpr std::size_t list_limit = 0x555555555555555;

char folded(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

// From the end, since names of one list often begin alike: "Parameter0", "Parameter1".
bool same_name(std::string const& a, std::string const& b) {
  auto left = a.size();
  if (left != b.size()) return false;
  while (left != 0 && folded(a[left - 1]) == folded(b[left - 1])) --left;
  return left == 0;
}

template <class List>
auto find_in(List& list, std::string const& name) {
  return std::ranges::find_if(
      list, [&](auto const& value) { return same_name(value.first, name); });
}

}  // namespace

EGeneric::EGeneric() = default;
EGeneric::EGeneric(EGeneric const& other) : std::exception(), list(other.list) {}
EGeneric& EGeneric::operator=(EGeneric const& other) = default;
EGeneric::~EGeneric() = default;

EGeneric::EGeneric(P const& a) : EGeneric() { append_all({&a}); }
EGeneric::EGeneric(P const& a, P const& b) : EGeneric() { append_all({&a, &b}); }
EGeneric::EGeneric(P const& a, P const& b, P const& c) : EGeneric() { append_all({&a, &b, &c}); }
EGeneric::EGeneric(P const& a, P const& b, P const& c, P const& d) : EGeneric() {
  append_all({&a, &b, &c, &d});
}
EGeneric::EGeneric(P const& a, P const& b, P const& c, P const& d, P const& e) : EGeneric() {
  append_all({&a, &b, &c, &d, &e});
}
EGeneric::EGeneric(P const& a, P const& b, P const& c, P const& d, P const& e, P const& f)
    : EGeneric() {
  append_all({&a, &b, &c, &d, &e, &f});
}

void EGeneric::append_all(std::initializer_list<P const*> values) {
  list.reserve(values.size());
  for (auto const value : values) list.push_back(*value);
}

// The list grows by half, where the standard library would double it.
void EGeneric::append(std::string const& name, _value_t const& value) {
  if (list.size() >= list_limit) throw std::length_error("vector<T> too long");
  P item(name, value);  // copied first: both may lie in the list, which moves as it grows
  if (list.size() == list.capacity())
    list.reserve(std::max(list.size() + 1, list.capacity() + list.capacity() / 2));
  list.push_back(std::move(item));
}

void EGeneric::put_value(std::string const& name, _value_t const& value) {
  auto const found = find_value(name);
  if (found != list.end())
    found->second = value;
  else
    append(name, value);
}

_value_t EGeneric::get_value(std::string const& name) const {
  return get_value(name, _value_t());
}

_value_t EGeneric::get_value(std::string const& name, _value_t const& absent) const {
  auto const found = find_value(name);
  return found != list.end() ? found->second : absent;
}

_value_t EGeneric::operator[](std::string const& name) const { return get_value(name); }

_value_t& EGeneric::operator[](std::string const& name) {
  auto const found = find_value(name);
  if (found != list.end()) return found->second;
  append(name, _value_t());
  return list.back().second;
}

void EGeneric::clear_values() { list.clear(); }

std::vector<EGeneric::named_value> const& EGeneric::values() const { return list; }

std::vector<EGeneric::named_value>::iterator EGeneric::find_value(std::string const& name) {
  return find_in(list, name);
}

std::vector<EGeneric::named_value>::const_iterator EGeneric::find_value(
    std::string const& name) const {
  return find_in(list, name);
}

void EGeneric::move_to_back(std::string const& name) {
  auto const found = find_value(name);
  if (found != list.end()) std::swap(*found, list.back());
}

EBadCastException::EBadCastException(std::type_info const& from, std::type_info const& to)
    : EGeneric({"Text", "Bad cast"}, {"From", velt::detail::readable_name(from)},
               {"To", velt::detail::readable_name(to)}) {}

EBadCastException::EBadCastException(std::type_info const& from, std::type_info const& to,
                                     std::type_info const& real)
    : EGeneric({"Text", "Bad cast"}, {"From", velt::detail::readable_name(from)},
               {"To", velt::detail::readable_name(to)},
               {"RealType", velt::detail::readable_name(real)}) {}

namespace velt::detail {

void throw_bad_cast(std::type_info const& from, std::type_info const& to) {
  throw EBadCastException(from, to);
}

}  // namespace velt::detail
