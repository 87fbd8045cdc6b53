// The element types of a value for tests: their names in the documentation, a
// sample of each, and loops over all of them.
#pragma once

#include <comutil.h>

#include <string>

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
VELT_ELEMENT(int, -41)
VELT_ELEMENT(unsigned long, 0xFFFFFF42)
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

}  // namespace velt_test
