// The element types of a value for tests: their names in the documentation, a
// sample of each, and loops over all of them.
#pragma once

#include <comutil.h>

#include <string>
#include <typeinfo>
#include <vector>

#include "velt/value/Value.h"

namespace velt_test {

// What a sample of an object type refers to.
struct Object : virtual SmartPtrObj {};

template <class T>
struct element;

#define VELT_ELEMENT(T, SAMPLE)            \
  template <>                              \
  struct element<T> {                      \
    static constexpr char const* name = #T; \
    static T sample() { return SAMPLE; }   \
  };
VELT_ELEMENT(bool, true)
VELT_ELEMENT(int, 41)
VELT_ELEMENT(unsigned long, 42)
VELT_ELEMENT(__int64, 43)
VELT_ELEMENT(double, 4.5)
VELT_ELEMENT(_time_t, _time_t(46))
VELT_ELEMENT(_bstr_t, _bstr_t(L"47"))
VELT_ELEMENT(SmartPtr<SmartPtrObj>, SmartPtr<SmartPtrObj>(new Object))
VELT_ELEMENT(SmartPtr<const SmartPtrObj>, SmartPtr<const SmartPtrObj>(new Object))
VELT_ELEMENT(std::string, "50")
VELT_ELEMENT(std::wstring, L"51")
#undef VELT_ELEMENT

// Calls body.operator()<T>() for each element type.
template <class Body>
void for_each_element_type(Body const& body) {
  []<class... T>(velt::detail::type_list<T...>, Body const& call) {
    (call.template operator()<T>(), ...);
  }(velt::detail::element_types(), body);
}

// What tests do with an element type, with the type out of sight, so that loops
// over pairs of types are loops and not templates.
struct element_operations {
  char const* name;
  std::type_info const& type;
  _value_t (*scalar)();
  _value_t (*sequence)();
  void (*read)(_value_t const& value);            // strictly
  void (*write)(_value_t& value);                 // the sample
  void (*push_back)(_value_t& value);             // the sample
};

inline std::vector<element_operations> const& all_element_types() {
  static auto const types = [] {
    std::vector<element_operations> list;
    for_each_element_type([&list]<class T>() {
      list.push_back({
          element<T>::name,
          typeid(T),
          [] { return _value_t(element<T>::sample()); },
          [] { return _value_t(std::vector<T>{element<T>::sample()}); },
          [](_value_t const& value) { static_cast<void>(static_cast<T>(value)); },
          [](_value_t& value) { value = element<T>::sample(); },
          [](_value_t& value) { value.push_back(element<T>::sample()); },
      });
    });
    return list;
  }();
  return types;
}

}  // namespace velt_test
