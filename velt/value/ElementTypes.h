// The list of the eleven element types of a value. The operations of a holder, the
// constructors, assignments and conversions of the value, and the tables of the
// tests are generated from it.
#pragma once

#include <concepts>
#include <string>
#include <type_traits>

#include "velt/base/SmartPtr.h"
#include "velt/time/Time.h"

class _bstr_t;

// One row for each type, in the order of the operations of a holder: the type, and
// the tag of a COM variant that its holders report.
#define VELT_ELEMENT_TYPES(ROW)      \
  ROW(_time_t, 7)                    \
  ROW(SmartPtr<const SmartPtrObj>, 13) \
  ROW(SmartPtr<SmartPtrObj>, 13)     \
  ROW(_bstr_t, 8)                    \
  ROW(std::wstring, 8)               \
  ROW(std::string, 8)                \
  ROW(double, 5)                     \
  ROW(bool, 11)                      \
  ROW(__int64, 20)                   \
  ROW(unsigned long, 19)             \
  ROW(int, 22)

namespace velt::detail {

template <class... Types>
struct type_list {
  static constexpr int size = sizeof...(Types);
};

template <class List>
struct without_first;
template <class First, class... Rest>
struct without_first<type_list<First, Rest...>> {
  using type = type_list<Rest...>;
};

#define VELT_LIST_ITEM(T, TAG) , T
using element_types = without_first<type_list<void VELT_ELEMENT_TYPES(VELT_LIST_ITEM)>>::type;
#undef VELT_LIST_ITEM

// The index of T in a list; the size of the list if T is not in it.
template <class T, class List>
struct place_in;
template <class T, class... Types>
struct place_in<T, type_list<Types...>> {
  static constexpr int value = [] {
    constexpr bool same[] = {std::is_same_v<T, Types>...};
    int place = 0;
    while (place < int(sizeof...(Types)) && !same[place]) ++place;
    return place;
  }();
};

template <class T>
concept element_type = place_in<T, element_types>::value < element_types::size;

template <class T>
inline constexpr bool is_object = std::is_same_v<T, SmartPtr<SmartPtrObj>> ||
                                  std::is_same_v<T, SmartPtr<const SmartPtrObj>>;

template <class T>
inline constexpr bool is_text = std::is_same_v<T, std::string> ||
                                std::is_same_v<T, std::wstring> || std::is_same_v<T, _bstr_t>;

// The tags that tell the kinds of holders apart.
#define VELT_TAG(T, TAG) \
  template <>            \
  inline constexpr unsigned int variant_tag<T> = TAG;
template <class T>
inline constexpr unsigned int variant_tag = 0;
VELT_ELEMENT_TYPES(VELT_TAG)
#undef VELT_TAG

}  // namespace velt::detail
