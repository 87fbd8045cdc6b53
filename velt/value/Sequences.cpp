#include <comutil.h>

#include "velt/value/HoldersInternal.h"

namespace velt::detail {
namespace {

template <class T>
_value_t_data* make_sequence(auto begin, auto end) {
  return new _value_t_cont_t<T>(begin, end);
}

template <class Collection>
struct element_of {
  using type = typename Collection::value_type;
};
template <class T>
struct element_of<const_array<T>> {
  using type = T;
};

}  // namespace

template <class Collection>
_value_t_data* new_sequence(Collection const& elements) {
  return make_sequence<typename element_of<Collection>::type>(elements.begin(), elements.end());
}

#define VELT_INSTANTIATE(T, TAG)                                            \
  template VELT_API _value_t_data* new_sequence(const_array<T> const&);     \
  template VELT_API _value_t_data* new_sequence(std::list<T> const&);       \
  template VELT_API _value_t_data* new_sequence(std::set<T> const&);        \
  template VELT_API _value_t_data* new_sequence(std::vector<T> const&);
VELT_ELEMENT_TYPES(VELT_INSTANTIATE)

}  // namespace velt::detail
