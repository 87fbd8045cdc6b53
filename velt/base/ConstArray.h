// const_array: a non-owning view of consecutive elements, for handing a plain
// array to a value. The count comes before the pointer, unlike in
// basic_const_string.
#pragma once

#include <cstdint>  // __int64

// The elements must outlive the view. `data` may be null only if `count` is 0.
template <class T>
struct const_array {
  // The number of elements, and the first of them.
  unsigned __int64 count = 0;
  T const* data = nullptr;

  constexpr const_array() noexcept = default;
  // A view of `size` elements.
  constexpr const_array(unsigned __int64 size, T const* first) noexcept
      : count(size), data(first) {}

  // A view of a whole array.
  template <unsigned __int64 Size>
  constexpr const_array(T const (&elements)[Size]) noexcept : count(Size), data(elements) {}

  // For loops over the elements.
  constexpr T const* begin() const noexcept { return data; }
  constexpr T const* end() const noexcept { return data + count; }
};
